// What is known of the node that is selected, and what can be done with it.

import { fillTable, make, makeButton, replaceIn } from "./tables.js";

/** Temporary relays are those of who watches. */
const readersOf = ({ consumers = [] }) => consumers.filter((id) => !id.startsWith("~"));

function factsOf({ tap, buffer, processor, text, on }) {
  if (tap) {
    return [["format", text], ["block length", `${tap.block_length_frames} frames`],
      ["tap-out", tap.tapout ?? "none"], ["inject", tap.inject ?? "none"]];
  }
  if (buffer) {
    return [["state", on ? "on" : "off"], ["read by", readersOf(buffer).join(", ") || "nobody"]];
  }
  return [["type", processor.type], ["input", processor.input ?? "none"],
    ["output", processor.output ?? "none"]];
}

const nameOf = ({ parameter, element }) => (element ? `${parameter} ${element}` : parameter);

/** A value of a parameter, in a field that changes it. `set` takes the new value. */
function fieldOf(row, set, readOnly) {
  const input = make("input", { ariaLabel: nameOf(row), disabled: readOnly });
  input.value = input.defaultValue = row.value;
  input.addEventListener("change", () => {
    input.defaultValue = input.value; // it is not being typed any more
    set(input.value);
  });
  return input;
}

/** The values of a processor's parameters, an element a row. */
function rowsOf(parameters) {
  return parameters.flatMap(({ parameter, element = 0, value }) =>
    [value].flat().map((each, i) => ({ parameter, element: element + i, value: each })));
}

function buttonsOf(node, page) {
  const buttons = [];
  if (node.kind !== "inject") {
    buttons.push(makeButton("Look and listen", () => page.look(node.name)));
  }
  if (node.kind === "tapout") buttons.push(makeButton("Arrivals", () => page.timing(node.name)));
  if (page.readOnly) return buttons;
  if (node.kind !== "inject") {
    buttons.push(makeButton(node.on ? "Switch off" : "Switch on", () => page.toggle(node.id)));
  }
  if (node.processor) buttons.push(makeButton("Delete", () => page.remove(node.id)));
  return buttons;
}

/**
 * Shows a node in `parent`; nothing for null. `page` has look(point), timing(tapout), toggle(id),
 * remove(id), parameters(name), set(name, row, value) and readOnly.
 */
export async function showDetails(parent, node, page) {
  parent.dataset.node = node?.id ?? "";
  const rows = node?.processor ? rowsOf(await page.parameters(node.name)) : [];
  if (parent.dataset.node !== (node?.id ?? "")) return; // another one was selected meanwhile
  parent.hidden = !node;
  replaceIn(parent, () => {
    parent.replaceChildren();
    if (!node) return;
    const [facts, settings] = [make("table"), make("table")];
    fillTable(facts, [], factsOf(node));
    fillTable(settings, [], rows.map((row) => [
      nameOf(row), fieldOf(row, (value) => page.set(node.name, row, value), page.readOnly),
    ]));
    parent.append(make("h2", { textContent: node.label }), facts,
      make("p", {}, ...buttonsOf(node, page)), settings);
  });
}
