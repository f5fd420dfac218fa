"use strict";

const amount = document.getElementById("amount");

document.querySelector(".keypad").addEventListener("click", (event) => {
  const key = event.target.closest("button");
  if (key === null) {
    return;
  }
  amount.value = key.dataset.key === "back" ? amount.value.slice(0, -1) : amount.value + key.textContent;
});
