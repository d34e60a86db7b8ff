// What the page asks and explains in its dialog.

import { fillTable, make } from "./tables.js";

const dialog = document.getElementById("dialog");
const part = (name) => document.getElementById(`dialog-${name}`);

let answer = () => {}; // of the question that is shown
dialog.addEventListener("close", () => answer(dialog.returnValue === "do"));

/**
 * Shows texts and elements; resolves to whether the button was pressed. Without `button` there is
 * only one to close it.
 */
export function ask(title, contents, button = "") {
  answer(false); // to what was asked before
  dialog.returnValue = "";
  part("title").textContent = title;
  part("contents").replaceChildren(...contents);
  part("do").hidden = !button;
  part("do").textContent = button;
  if (!dialog.open) dialog.showModal();
  return new Promise((resolve) => { answer = resolve; });
}

/** A table of a dialog; a sentence when there are no rows. */
export function tableOf(heads, rows, otherwise) {
  if (!rows.length) return make("p", {}, otherwise);
  const table = make("table");
  fillTable(table, heads, rows);
  return table;
}

/** Causes as `kvoxctl why` finds them. */
export function causesOf(causes) {
  return causes.map((cause) => make("section", {},
    make("h3", {}, `${cause.stream}: ${cause.cause.replaceAll("_", " ")}`),
    make("p", {}, `${cause.lost} lost, ${cause.late} late` +
      (cause.culprit ? `, by ${cause.culprit}` : "")),
    make("p", { className: "figures" }, cause.evidence),
    make("p", {}, cause.advice)));
}

export function findingsOf(findings) {
  return findings.map(({ verdict, object, cause, fix }) => make("p", {},
    make("strong", { className: verdict === "ok" ? "" : "bad" }, `${verdict}: `),
    `${object}: ${cause}`, fix ? make("pre", {}, fix) : ""));
}
