// Small parts that panels and lanes are made of.

export function make(tag, properties = {}, ...children) {
  const made = Object.assign(document.createElement(tag), properties);
  made.append(...children);
  return made;
}

/** `label` is what a screen reader says, where the text alone does not tell. */
export function makeButton(text, onClick, label = text) {
  const button = make("button", { textContent: text, type: "button", ariaLabel: label });
  button.addEventListener("click", () => onClick(button));
  return button;
}

/** A button that stays pressed until the next press; `onChange` takes whether it is on. */
export function makeToggle(text, onChange, label = text) {
  const press = (button) => {
    const on = button.getAttribute("aria-pressed") !== "true";
    button.setAttribute("aria-pressed", on);
    onChange(on, button);
  };
  const button = makeButton(text, press, label);
  button.setAttribute("aria-pressed", false);
  return button;
}

/** `choices` are pairs of a text and its value. */
export function makeSelect(label, choices, chosen, onChange) {
  const select = make("select", { title: label, ariaLabel: label });
  for (const [text, value] of choices) select.add(new Option(text, text, false, value === chosen));
  select.addEventListener("change", () => onChange(new Map(choices).get(select.value)));
  return select;
}

const nameOf = (control) => control.ariaLabel || control.textContent;

/**
 * Lets `render` replace what is in `parent`: the focus goes to the control of the same name. Does
 * nothing while somebody types there.
 */
export function replaceIn(parent, render) {
  const focused = parent.contains(document.activeElement) ? document.activeElement : null;
  if (focused?.tagName === "INPUT" && focused.value !== focused.defaultValue) return;
  const name = focused && nameOf(focused);
  render();
  if (!name || parent.contains(focused)) return;
  [...parent.querySelectorAll("button, input, select")].find((it) => nameOf(it) === name)?.focus();
}

/** Cells are texts or elements; heads may be empty. */
export function fillTable(table, heads, rows) {
  const line = (tag, cells) => make("tr", {}, ...cells.map((cell) => make(tag, {}, cell ?? "")));
  replaceIn(table, () => table.replaceChildren(...(heads.length ? [line("th", heads)] : []),
    ...rows.map((cells) => line("td", cells))));
}
