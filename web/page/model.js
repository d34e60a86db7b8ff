// The audio graph as the page shows it, and which commands change it. No page, no network.

/** The columns of the patchbay, in the direction of the audio. */
export const COLUMNS = [
  { kind: "source", title: "Tap points" },
  { kind: "tapout", title: "Tap-outs" },
  { kind: "processor", title: "Processors" },
  { kind: "inject", title: "Injects" },
  { kind: "sink", title: "Tap points" },
];

const order = (kind) => COLUMNS.findIndex((column) => column.kind === kind);

/** Temporary relays belong to those who watch, this page among them. */
const isTemporary = (id) => id.startsWith("~");

/** What is drawn, from kvoxctl's lists. */
export function makeGraph(taps, buffers, processors) {
  const nodes = new Map();
  const wires = [];
  const add = (kind, name, on, more) => {
    nodes.set(`${kind}:${name}`, { id: `${kind}:${name}`, kind, name, on, ...more });
  };
  const wire = (from, to) => {
    if (nodes.has(from) && nodes.has(to)) wires.push({ from, to });
  };
  for (const tap of taps) {
    const label = `${tap.code.trim()}.${tap.index}`;
    const text = `${tap.sample_rate_hz / 1000} kHz, ${tap.channels} ch, ${tap.encoding}${tap.bits}`;
    add("source", tap.tap, tap.enabled, { label, text, tap });
    add("sink", tap.tap, tap.enabled, { label, text, tap });
  }
  for (const buffer of buffers) {
    const kind = buffer.direction === "inject" ? "inject" : "tapout";
    const text = buffer.gave_up ? "its device failed" : "";
    add(kind, buffer.name, buffer.enabled, { label: buffer.name, text, buffer });
  }
  for (const processor of processors) {
    if (isTemporary(processor.id)) continue;
    const label = processor.id;
    add("processor", label, processor.enabled, { label, text: processor.type, processor });
  }
  for (const { tap, tapout, inject } of taps) {
    if (tapout) wire(`source:${tap}`, `tapout:${tapout}`);
    if (inject) wire(`inject:${inject}`, `sink:${tap}`);
  }
  for (const { id, input, output } of processors) {
    if (input) wire(`tapout:${input}`, `processor:${id}`);
    if (output) wire(`processor:${id}`, `inject:${output}`);
  }
  return { nodes, wires };
}

const orNone = (name) => name ?? "none";

const bind = (tap, tapout, inject) => ["tap", "connect", tap, orNone(tapout), orNone(inject)];
const connect = (id, input, output) =>
  input || output ? ["connect", id, orNone(input), orNone(output)] : ["disconnect", id];

const GONE = { refusal: "somebody has removed it meanwhile" };

/** A change: commands to make it, and those that undo it. */
function change(text, commands, undo) {
  return { text, commands, undo };
}

/** Commands that give a tap point other buffers. */
function rebind(tap, to) {
  const { tapout, inject } = { tapout: tap.tapout, inject: tap.inject, ...to };
  return change(`${tap.tap} with ${orNone(tapout)} and ${orNone(inject)}`,
    [bind(tap.tap, tapout, inject)], [bind(tap.tap, tap.tapout, tap.inject)]);
}

function reconnect(processor, to) {
  const { input, output } = { input: processor.input, output: processor.output, ...to };
  return change(`${processor.id} with ${orNone(input)} and ${orNone(output)}`,
    [connect(processor.id, input, output)],
    [connect(processor.id, processor.input, processor.output)]);
}

/**
 * What to do when one node is dragged to another: a change, or {refusal}. The direction of the drag
 * does not matter.
 */
export function planWire(one, other, graph) {
  if (!one || !other) return GONE;
  const [from, to] = order(one.kind) <= order(other.kind) ? [one, other] : [other, one];
  switch (`${from.kind} ${to.kind}`) {
    case "source tapout": return rebind(from.tap, { tapout: to.name });
    case "inject sink": return rebind(to.tap, { inject: from.name });
    case "tapout processor": return reconnect(to.processor, { input: from.name });
    case "processor inject": {
      const writer = graph.wires.find((wire) => wire.to === to.id && wire.from !== from.id);
      const name = writer && graph.nodes.get(writer.from).label;
      if (name) return { refusal: `${to.name} is written by ${name}, and has one writer` };
      return reconnect(from.processor, { output: to.name });
    }
    case "source processor":
      if (from.tap.tapout) return reconnect(to.processor, { input: from.tap.tapout });
      return { refusal: `drag ${from.label} to a tap-out first: ${to.label} reads tap-outs` };
    case "processor sink":
      if (to.tap.inject) return reconnect(from.processor, { output: to.tap.inject });
      return { refusal: `drag an inject to ${to.label} first: ${from.label} writes injects` };
    default:
      return { refusal: `nothing connects ${from.label} and ${to.label} directly` };
  }
}

/** The change that takes a wire away. */
export function planCut({ from, to }, graph) {
  const [a, b] = [graph.nodes.get(from), graph.nodes.get(to)];
  if (!graph.wires.some((wire) => wire.from === from && wire.to === to)) return GONE;
  if (a.kind === "source") return rebind(a.tap, { tapout: null });
  if (b.kind === "sink") return rebind(b.tap, { inject: null });
  return a.kind === "tapout"
    ? reconnect(b.processor, { input: null })
    : reconnect(a.processor, { output: null });
}

/** The change that switches a node on or off, or {refusal}. */
export function planSwitch(node) {
  if (!node) return GONE;
  const pairs = {
    source: [["tap", "enable"], ["tap", "disable"]],
    sink: [["tap", "enable"], ["tap", "disable"]],
    processor: [["processor", "enable"], ["processor", "disable"]],
    tapout: [["io", "start"], ["io", "stop"]],
  };
  const pair = pairs[node.kind];
  if (!pair) return { refusal: `${node.label} runs while a tap-out that feeds it runs` };
  const [on, off] = pair.map((words) => [...words, node.name]);
  return node.on
    ? change(`${node.label} off`, [off], [on])
    : change(`${node.label} on`, [on], [off]);
}

/** The change that removes a processor; undoing it sets up another one alike. */
export function planRemoval(node, parameters) {
  if (!node) return GONE;
  const { id, type, input, output, enabled } = node.processor;
  return change(`${id} deleted`, [["processor", "delete", id]], [
    ["processor", "new", id, type],
    ...(input || output ? [connect(id, input, output)] : []),
    ...parameters.map(({ parameter, element = 0, value }) =>
      ["param", "set", id, parameter, String(value), "--element", String(element)]),
    ...(enabled ? [["processor", "enable", id]] : []),
  ]);
}

/** Those of the points that are on in `graph` and were not in the one before. */
export function switchedOn(points, before, graph) {
  const isOn = ({ nodes }, point) => [...nodes.values()]
    .some(({ name, label, on }) => on && (name === point || label === point));
  return points.filter((point) => isOn(graph, point) && !isOn(before, point));
}

/**
 * The tap-outs whose levels are shown, those that run for somebody else than those who watch, each
 * with the point that is watched for it: the tap point that it reads when that is watched already.
 */
export function livePoints(graph, watched) {
  const pointOf = ({ id, name }) => {
    const source = graph.nodes.get(graph.wires.find(({ to }) => to === id)?.from);
    const names = source?.on ? [source.name, source.label] : [];
    return names.find((point) => watched.includes(point)) ?? name;
  };
  return new Map([...graph.nodes.values()]
    .filter((node) => node.kind === "tapout" && node.on)
    .filter((node) => graph.wires.some((wire) => wire.from === node.id))
    .map((node) => [node.name, pointOf(node)]));
}
