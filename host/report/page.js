// Filters and sorts; without it the page shows everything. The state stands in the fragment, so
// that a link can hold it: #filter=net&show=changed&sort=size or sort=-size.
"use strict";
const controls = document.getElementById("controls");
const filter = document.getElementById("filter");
const table = document.getElementById("nvar-table");
const items = [...document.querySelectorAll(".item")];
const headers = [...table.tHead.rows[0].cells];
let sorted = "";

function key(header) {
  return header.textContent.toLowerCase();
}

function sort(wanted) {
  const name = wanted.replace(/^-/, "");
  const column = headers.findIndex((header) => key(header) === name);
  if (column < 0) {
    return;
  }
  sorted = wanted;
  const sign = wanted === name ? 1 : -1;
  const rows = [...table.tBodies[0].rows];
  const text = (row) => row.cells[column].textContent;
  rows.sort((a, b) => sign * text(a).localeCompare(text(b), "en", {numeric: true}));
  table.tBodies[0].append(...rows);
  headers.forEach((header) => header.removeAttribute("aria-sort"));
  headers[column].setAttribute("aria-sort", sign > 0 ? "ascending" : "descending");
}

function apply() {
  const wanted = filter.value.toLowerCase();
  const kind = controls.elements.show.value;
  for (const item of items) {
    const is_kind = !kind || item.tagName !== "TR" || item.classList.contains(kind);
    item.hidden = !is_kind || !item.textContent.toLowerCase().includes(wanted);
  }
  const shown = items.filter((item) => !item.hidden).length;
  document.getElementById("shown").value = `${shown} of ${items.length} shown`;
}

function remember() {
  const state = new URLSearchParams();
  const parts = {filter: filter.value, show: controls.elements.show.value, sort: sorted};
  for (const [name, value] of Object.entries(parts)) {
    if (value) {
      state.set(name, value);
    }
  }
  history.replaceState(null, "", `#${state}`);
}

function restore() {
  const state = new URLSearchParams(location.hash.slice(1));
  filter.value = state.get("filter") ?? "";
  controls.elements.show.value = state.get("show") ?? "";
  sort(state.get("sort") ?? "");
  apply();
}

for (const header of headers) {
  const button = document.createElement("button");
  button.type = "button";
  button.append(...header.childNodes);
  header.append(button);
  button.addEventListener("click", () => {
    sort(sorted === key(header) ? `-${key(header)}` : key(header));
    remember();
  });
}
controls.addEventListener("input", () => {
  apply();
  remember();
});
controls.addEventListener("submit", (event) => event.preventDefault());
addEventListener("hashchange", restore);
document.getElementById("different-choice").hidden = headers.length < 9;
controls.hidden = false;
restore();
