// Draws the icons and configuration pages of all installed applications, in the order of their positions.
"use strict";

function tile(item) {
  const link = document.createElement("a");
  link.className = "tile";
  link.href = item.form.replace("/html/", "/cgi-bin/page/show?path=");
  const icon = document.createElement("img");
  icon.src = item.iconPath;
  icon.alt = "";
  icon.style.visibility = item.iconPath === "" ? "hidden" : "visible";
  link.append(icon, item.title);
  return link;
}

window.kx.applications().then((applications) => {
  for (const kind of ["desktopItems", "configPages"]) {
    const items = applications.flatMap((application) => application[kind]);
    items.sort((a, b) => a.iconPosition - b.iconPosition);
    document.getElementById(kind).append(...items.map(tile));
  }
});
