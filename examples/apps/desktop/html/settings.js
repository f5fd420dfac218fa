"use strict";

const form = document.querySelector("form");
const state = document.getElementById("state");
const property = (field) => (field.type === "checkbox" ? "checked" : "value");

for (const field of form.elements) {
  const kept = localStorage.getItem(field.name);
  if (kept !== null) {
    field[property(field)] = JSON.parse(kept);
  }
}

form.addEventListener("change", (event) => {
  const field = event.target;
  localStorage.setItem(field.name, JSON.stringify(field[property(field)]));
  state.textContent = "Saved.";
});
