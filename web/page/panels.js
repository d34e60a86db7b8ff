// Panels below the graph: use cases, captures, and the log of what happened.

import { fillTable, make, makeButton } from "./tables.js";

const MOST_ENTRIES = 500;
const POLL_MS = 1000;

/** A part of the page that is opened when it is wanted. */
export class Panel {
  #page;
  #reading = false;

  constructor(parent, name, title, page) {
    this.#page = page;
    this.element = make("details", { className: "panel" }, make("summary", { textContent: title }));
    this.element.dataset.panel = name;
    this.table = make("table");
    this.element.append(this.table);
    this.element.addEventListener("toggle", () => this.refresh());
    parent.append(this.element);
  }

  /** Reads what it shows again, if it is open. */
  async refresh() {
    if (!this.element.open || this.#reading) return;
    this.#reading = true;
    await this.#page.attempt(() => this.read());
    this.#reading = false;
  }

  async read() {}
}

/** `page` has run(words), change(plan), attempt(work) and readOnly. */
export class UseCases extends Panel {
  #page;

  constructor(parent, page) {
    super(parent, "usecases", "Use cases", page);
    this.#page = page;
  }

  async read() {
    const { usecases } = await this.#page.run(["usecase", "list"]);
    fillTable(this.table, ["Name", "State", ""], usecases.map(({ name, enabled }) => [
      name, { true: "on", false: "off", null: "not known" }[enabled], this.#button(name, enabled),
    ]));
  }

  #button(name, enabled) {
    const [on, off] = ["enable", "disable"].map((verb) => [["usecase", verb, name]]);
    const plan = enabled
      ? { text: `${name} off`, commands: off, undo: on }
      : { text: `${name} on`, commands: on, undo: off };
    const word = enabled ? "Switch off" : "Switch on";
    const button = makeButton(word, () => this.#page.change(() => plan), `${word} ${name}`);
    button.disabled = this.#page.readOnly;
    return button;
  }
}

export class Captures extends Panel {
  #page;
  #buffers;
  #file;
  #start;

  constructor(parent, page) {
    super(parent, "captures", "Captures", page);
    this.#page = page;
    this.#buffers = make("select", { ariaLabel: "Buffer to capture" });
    this.#file = make("input", { ariaLabel: "File of the daemon", value: "/tmp/capture.wav" });
    this.#start = makeButton("Capture", () => this.#begin());
    this.element.append(make("p", {}, this.#buffers, " into ", this.#file, " ", this.#start));
    setInterval(() => this.refresh(), POLL_MS);
  }

  /** The buffers that may be chosen. */
  setBuffers(names) {
    const chosen = this.#buffers.value;
    this.#buffers.replaceChildren(...names.map((name) => new Option(name)));
    if (names.includes(chosen)) this.#buffers.value = chosen;
  }

  async read() {
    this.#start.disabled = this.#page.readOnly;
    const { captures } = await this.#page.run(["capture", "status"]);
    fillTable(this.table, ["Buffer", "File", "Samples", "State", ""], captures.map((capture) => [
      capture.buffer, capture.file, String(capture.samples),
      capture.recording ? "recording" : capture.trouble,
      capture.recording ? this.#endButton(capture) : "",
    ]));
  }

  #begin() {
    const [buffer, file] = [this.#buffers.value, this.#file.value];
    const start = ["capture", "start", buffer, file];
    const stop = ["capture", "stop", buffer];
    this.#page.change(() =>
      ({ text: `capture of ${buffer} into ${file}`, commands: [start], undo: [stop] }));
  }

  #endButton({ buffer }) {
    const end = async () => {
      await this.#page.run(["capture", "stop", buffer]);
      await this.read();
    };
    const button = makeButton("End", () => this.#page.attempt(end), `End the capture of ${buffer}`);
    button.disabled = this.#page.readOnly;
    return button;
  }
}

export const timeOf = (ms) =>
  new Date(ms).toLocaleTimeString([], {
    hourCycle: "h23", hour: "2-digit", minute: "2-digit", second: "2-digit",
    fractionalSecondDigits: 3,
  });

/** What happened in the daemon, newest first. */
export class Log extends Panel {
  #entries = [];

  constructor(parent, page) {
    super(parent, "log", "What happened", page);
  }

  clear() {
    this.#entries = [];
  }

  add(entries) {
    this.#entries.push(...entries);
    this.#entries.splice(0, this.#entries.length - MOST_ENTRIES);
    this.refresh();
  }

  /** Those that are at most so long before or after a time. */
  around(ms, distanceMs) {
    return this.#entries.filter(({ at_ms }) => Math.abs(at_ms - ms) <= distanceMs);
  }

  async read() {
    fillTable(this.table, ["Time", "What", "Of", "", "Status", "By"],
      this.#entries.toReversed().map((entry) => [
        timeOf(entry.at_ms), entry.kind, entry.subject, entry.text,
        entry.status ? String(entry.status) : "", entry.pid ? `process ${entry.pid}` : "",
      ]));
  }
}
