// The flight recorder: what was kept, when to keep more, and a kept folder opened again.

import { Lane } from "./lane.js";
import { makeGraph } from "./model.js";
import { Panel, timeOf } from "./panels.js";
import { Patchbay } from "./patchbay.js";
import { fillTable, make, makeButton } from "./tables.js";

const RULES = {
  loss: "when audio is lost",
  clip: "when samples are at full scale",
  restart: "when daemon or co-processor restart",
};
const REASONS = { ...RULES, asked: "when asked to" };

/** `page` has keep(), setRules(rules), attempt(work), token and readOnly. */
export class Kept extends Panel {
  #page;
  #where = make("p", { className: "figures" });
  #now;
  #boxes = {};
  #view = null;

  constructor(parent, page) {
    super(parent, "kept", "Flight recorder", page);
    this.#page = page;
    this.#now = makeButton("Keep the last seconds now", () => page.keep());
    const choices = make("p", {}, this.#now);
    for (const [rule, text] of Object.entries(RULES)) {
      const box = make("input", { type: "checkbox", ariaLabel: `Keep ${text}` });
      box.addEventListener("change", () => page.setRules(this.#rules()));
      this.#boxes[rule] = box;
      choices.append(make("label", {}, box, text));
    }
    this.table.before(choices, this.#where);
  }

  /** The message of the server. */
  show({ directory, rules, folders, error }) {
    this.#where.textContent = error ?? `They are in ${directory}.`;
    this.#where.classList.toggle("bad", error !== null);
    this.#now.disabled = this.#page.readOnly;
    for (const [rule, box] of Object.entries(this.#boxes)) {
      box.checked = rules.includes(rule);
      box.disabled = this.#page.readOnly;
    }
    fillTable(this.table, ["Kept", "Because", ""], folders.map(({ name, kept_ms, reason }) => [
      `${new Date(kept_ms).toLocaleDateString()} ${timeOf(kept_ms)}`, REASONS[reason] ?? reason,
      makeButton("Open", () => this.#page.attempt(() => this.#open(name)), `Open ${name}`),
    ]));
  }

  draw(colors) {
    this.#view?.draw(colors);
  }

  #rules() {
    return Object.keys(this.#boxes).filter((rule) => this.#boxes[rule].checked);
  }

  async #open(name) {
    this.#view?.close();
    const view = new KeptView(name, (file) => readKept(name, file, this.#page.token));
    this.#view = view;
    this.element.after(view.element);
    view.element.scrollIntoView();
    await view.load();
  }
}

/** A file of a folder, as a Response. */
async function readKept(folder, file, token) {
  const path = `kept/${encodeURIComponent(folder)}/${encodeURIComponent(file)}`;
  const response = await fetch(path, { headers: { Authorization: `Bearer ${token}` } });
  if (!response.ok) throw new Error(`${folder}/${file}: ${response.status} ${response.statusText}`);
  return response;
}

/** A folder: its graph, the audio of each point, what went wrong, and what happened. */
class KeptView {
  #read;
  #lanes = [];
  #links = [];
  #closed = false;

  /** `read` returns a file, as a Response. */
  constructor(name, read) {
    this.#read = read;
    this.element = make("section", { className: "panel", ariaLabel: `Kept: ${name}` },
      make("h2", { textContent: name }), makeButton("Close", () => this.close(), `Close ${name}`));
    this.element.dataset.folder = name;
  }

  async load() {
    const [report, graph, why, log] = await Promise.all(
      ["report", "graph", "why", "log"].map(async (name) =>
        (await this.#read(`${name}.json`)).json()));
    for (const error of report.errors) this.#say(error);
    const place = make("div");
    this.element.append(place);
    new Patchbay(place, { readOnly: true }).show(
      makeGraph(graph.taps ?? [], graph.buffers ?? [], graph.processors ?? []));
    for (const file of report.files) {
      await this.#addAudio(file).catch((error) => this.#say(`${file.file}: ${error.message}`));
    }
    this.#addTable("What went wrong", ["Stream", "Cause", "Evidence", "Lost"],
      (why.causes ?? []).map((cause) =>
        [cause.stream, cause.cause, cause.evidence, String(cause.lost)]));
    this.#addTable("What happened", ["Time", "What", "Of", ""],
      log.entries.map((entry) => [timeOf(entry.at_ms), entry.kind, entry.subject, entry.text]));
  }

  draw(colors) {
    for (const lane of this.#lanes) lane.draw(colors);
  }

  close() {
    this.#closed = true;
    this.element.remove();
    for (const link of this.#links) URL.revokeObjectURL(link);
    this.#lanes = [];
  }

  #say(error) {
    this.element.append(make("p", { className: "bad" }, error));
  }

  async #addAudio({ file, points, sample_rate_hz: rate, channels, frames, gaps }) {
    if (this.#closed) return;
    const blob = await (await this.#read(file)).blob();
    const decoder = new OfflineAudioContext(channels, 1, rate); // at its rate nothing is converted
    const audio = await decoder.decodeAudioData(await blob.arrayBuffer());
    const samples = Array.from({ length: channels }, (_, i) => audio.getChannelData(i));
    if (this.#closed) return;
    const lane = new Lane(this.element, points[0], { keepSeconds: Math.ceil(frames / rate) });
    lane.show({ position: 0, missing: 0, rate, samples },
      gaps.map((gap) => ({ position: gap.position_frames, frames: gap.frames })));
    this.#lanes.push(lane);
    this.#links.push(URL.createObjectURL(blob));
    this.element.append(make("audio", {
      controls: true, src: this.#links.at(-1), ariaLabel: `Audio of ${points[0]}`,
    }));
  }

  #addTable(title, heads, rows) {
    const table = make("table");
    fillTable(table, heads, rows);
    this.element.append(make("h3", { textContent: title }), rows.length ? table : "Nothing.");
  }
}
