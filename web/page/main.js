// The page: connects what kvoxweb tells with what is shown, and what is done with commands.

import { Changes } from "./changes.js";
import { Connection, Refused } from "./connection.js";
import { showDetails } from "./details.js";
import { ask, causesOf, findingsOf, tableOf } from "./dialog.js";
import { explain } from "./explain.js";
import { Kept } from "./kept.js";
import { Lanes } from "./lanes.js";
import {
  livePoints, makeGraph, planCut, planRemoval, planSwitch, planWire, switchedOn,
} from "./model.js";
import { Captures, Log, UseCases } from "./panels.js";
import { Patchbay } from "./patchbay.js";
import { styled } from "./style.js";
import { Timing } from "./timing.js";
import { Troubles } from "./troubles.js";

const TOKEN = "kvox-token";
const MOST_MESSAGES = 200;
const MOST_LEVELS = 64; // that the server gives
const $ = (id) => document.getElementById(id);

addEventListener("hashchange", () => location.reload()); // another link

/** From the link, which it is removed from; else from the last time in this tab. */
function takeToken() {
  const given = new URLSearchParams(location.hash.slice(1)).get("token");
  if (given) {
    sessionStorage.setItem(TOKEN, given);
    history.replaceState(null, "", location.pathname);
  }
  return sessionStorage.getItem(TOKEN) ?? "";
}

const token = takeToken();
const url = `${location.protocol === "https:" ? "wss" : "ws"}://${location.host}/api`;
const connection = new Connection(url, token);
const nodeOf = (id) => graph.nodes.get(id);

/** A command is a list of words, or {words, input}. */
function run(command) {
  const { words = command, ...options } = command;
  return connection.run(words, options);
}

/** A document that may come with a message about what is missing in it, which is said. */
async function runForAll(command, key) {
  try {
    return await run(command);
  } catch (error) {
    if (!error.out?.[key]) throw error;
    if (!notes.has(error.message)) say(error.message);
    notes.add(error.message);
    return error.out;
  }
}

/** What the parts of the page may ask of it. */
const page = {
  token,
  readOnly: false,
  run,
  change,
  attempt,
  keep: () => connection.send({ keep: true }),
  setRules: (rules) => connection.send({ rules }),
  look: (point) => lanes.open(point),
  timing: toggleTiming,
  toggle: (id) => change(() => planSwitch(nodeOf(id))),
  remove: (id) => change(async () =>
    planRemoval(nodeOf(id), await page.parameters(nodeOf(id)?.name))),
  parameters: async (name) =>
    (await run(["param", "get", name]).catch(() => ({}))).parameters ?? [],
  set: (name, { parameter, element }, value) => change(async () => {
    const words = ["param", "get", name, parameter, String(element)];
    const before = (await run(words)).parameters[0].value;
    const set = (to) => ["param", "set", name, parameter, String(to), "--element", String(element)];
    const text = `${parameter} of ${name}: ${value}`;
    return { text, commands: [set(value)], undo: [set(before)] };
  }),
};

const patchbay = new Patchbay($("patchbay"));
const lanes = new Lanes($("lanes"));
const changes = new Changes({ run, say, done: showChanges });
const troubles = new Troubles({
  lost: (name, packets) => say(`${name} lost ${packets} packets; Why? says more`, "bad"),
  skipped: (blocks) => say(`This page was too slow for ${blocks} blocks; close a lane`, "bad"),
});
const timings = new Map(); // Timing by tap-out
const log = new Log($("panels"), page);
const useCases = new UseCases($("panels"), page);
const captures = new Captures($("panels"), page);
const kept = new Kept($("panels"), page);
const notes = new Set(); // that were said
let graph = makeGraph([], [], []);
let selected = null; // a node's id
let changesSeen = -1;
let reading = null; // a promise while the graph is read
let readAgain = false;
let watched = "";
let levels = {};
let live = new Map(); // the point whose levels are shown for each tap-out

function say(text, kind = "") {
  const item = document.createElement("li");
  item.textContent = `${new Date().toLocaleTimeString()}  ${text}`;
  item.className = kind;
  $("messages").prepend(item);
  while ($("messages").children.length > MOST_MESSAGES) $("messages").lastChild.remove();
}

/** Does what may fail; says so when it does. */
async function attempt(work) {
  try {
    await work();
  } catch (error) {
    say(error.message, "bad");
    if (!(error instanceof Refused)) console.warn(error);
  }
}

/** Reads the graph, once more when something changes meanwhile. */
function refresh() {
  readAgain = true;
  reading ??= (async () => {
    while (readAgain) {
      readAgain = false;
      await attempt(readGraph);
    }
    reading = null;
  })();
  return reading;
}

async function readGraph() {
  const [{ taps }, { buffers }, { processors }] = await Promise.all(
    [["tap", "taps"], ["buffer", "buffers"], ["processor", "processors"]]
      .map(([object, key]) => runForAll([object, "list"], key)));
  const before = graph;
  graph = makeGraph(taps, buffers, processors);
  if (switchedOn(lanes.points, before, graph).length > 0) watched = ""; // those that had ended, too
  patchbay.show(graph);
  captures.setBuffers(buffers.map(({ name }) => name));
  watch();
  if (selected) select(selected);
  await Promise.all([useCases, captures].map((panel) => panel.refresh()));
}

function watch() {
  live = livePoints(graph, lanes.points);
  const points = [...new Set([...lanes.points, ...live.values()])].slice(0, MOST_LEVELS);
  const watching = { levels: points, audio: lanes.points, timing: [...timings.keys()] };
  const wanted = JSON.stringify(watching);
  if (wanted === watched) return;
  watched = wanted;
  levels = Object.fromEntries(Object.entries(levels).filter(([point]) => points.includes(point)));
  connection.watch(watching);
}

/** `plan` returns the change when it is its turn. */
function change(plan) {
  if (!page.readOnly) return changes.make(plan);
  say("this page is read-only; start kvoxweb without --read-only", "bad");
}

/** After each change. */
async function showChanges() {
  $("undo").disabled = !changes.last || page.readOnly;
  $("undo").title = changes.last ? `Undo: ${changes.last.text}` : "";
  await refresh();
}

function toggleTiming(stream) {
  if (timings.has(stream)) {
    timings.get(stream).element.remove();
    timings.delete(stream);
  } else {
    const timing = new Timing($("lanes"), stream, (index) => attempt(() =>
      explain(stream, timing.packets.slice(), index, timing.wallMs, log, run)));
    timings.set(stream, timing);
  }
  watch();
}

function select(id) {
  selected = nodeOf(id) ? id : null;
  attempt(() => showDetails($("details"), nodeOf(id) ?? null, page));
}

async function exportState() {
  const link = document.createElement("a");
  const state = await run({ words: ["export"], text: true });
  link.href = URL.createObjectURL(new Blob([state]));
  link.download = "kvox.toml";
  link.click();
  URL.revokeObjectURL(link.href);
}

async function applyFile(file) {
  const input = await file.text();
  const { differences } =
    await runForAll({ words: ["apply", "-", "--dry-run"], input }, "differences");
  const rows = differences.map(({ object, property, wanted, actual }) =>
    [object, property, String(actual ?? "none"), String(wanted ?? "none")]);
  const contents = tableOf(["Object", "Property", "Is", "Will be"], rows, "It is as it should be.");
  if (!await ask(`Apply ${file.name}`, [contents], rows.length ? "Apply" : "")) return;
  await change(async () => {
    const before = await run({ words: ["export"], text: true });
    const [to, back] = [input, before].map((state) => ({ words: ["apply", "-"], input: state }));
    return { text: `${file.name} applied`, commands: [to], undo: [back] };
  });
}

async function showWhy() {
  const { causes } = await run(["why", "--last", "60"]);
  ask("The last minute", causes.length ? causesOf(causes) : ["All went well."]);
}

async function showDoctor() {
  const { findings } = await run(["doctor"]);
  ask("Doctor", findingsOf(findings));
}

function showState(text, kind) {
  if ($("state").textContent !== text) $("state").textContent = text; // it is read out
  $("state").className = kind;
}

const handlers = {
  open({ read_only: readOnly }) {
    page.readOnly = readOnly;
    changesSeen = -1;
    watched = "";
    $("import").disabled = readOnly;
    log.clear();
    lanes.forget();
  },
  closed({ reason }) {
    showState(reason || "kvoxweb is away", "bad");
    levels = {};
  },
  pulse(pulse) {
    showState(pulse.daemon ? "live" : "there is no daemon", pulse.daemon ? "on" : "bad");
    if (pulse.streams) troubles.count(pulse.streams, performance.now());
    if (pulse.changes === changesSeen) return;
    changesSeen = pulse.changes;
    if (pulse.daemon) refresh();
  },
  levels(message) {
    Object.assign(levels, message.levels);
    troubles.setLevels(message.levels, performance.now());
    troubles.skip(message.skipped);
    lanes.setLevels(message, performance.now());
  },
  log: ({ entries }) => log.add(entries),
  kept: (message) => kept.show(message),
  watching: ({ audio }) => lanes.setNumbers(audio),
  timing({ packets, wall_ms: wallMs }) {
    for (const [stream, rows] of Object.entries(packets)) timings.get(stream)?.add(rows, wallMs);
  },
  audio: (records) => lanes.take(records),
};
for (const [name, handle] of Object.entries(handlers)) {
  connection.addEventListener(name, ({ detail }) => handle(detail));
}

const graphEvents = {
  wire: ({ from, to }) => planWire(nodeOf(from), nodeOf(to), graph),
  cut: (wire) => planCut(wire, graph),
  switch: (id) => planSwitch(nodeOf(id)),
};
for (const [name, planOf] of Object.entries(graphEvents)) {
  patchbay.addEventListener(name, ({ detail }) => change(() => planOf(detail)));
}
patchbay.addEventListener("select", ({ detail }) => select(detail));
lanes.addEventListener("change", watch);

const buttons = {
  undo: () => changes.undo(),
  export: () => attempt(exportState),
  import: () => $("file").click(),
  why: () => attempt(showWhy),
  doctor: () => attempt(showDoctor),
};
for (const [id, press] of Object.entries(buttons)) $(id).addEventListener("click", press);
$("file").addEventListener("change", () => {
  const [file] = $("file").files;
  $("file").value = "";
  if (file) attempt(() => applyFile(file));
});

function draw() {
  requestAnimationFrame(draw);
  patchbay.showLevels(levels, live, troubles.now(performance.now()));
  const colors = styled();
  lanes.draw(colors);
  kept.draw(colors);
  for (const timing of timings.values()) timing.draw(colors);
}
draw();

/** For tests and for the browser's console. */
window.kvox = { connection, lanes, timings, get graph() { return graph; } };
