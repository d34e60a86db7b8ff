// Explains one packet: what `why` says of the time around it, its neighbours, and what happened.

import { ask, causesOf, tableOf } from "./dialog.js";
import { timeOf } from "./panels.js";

const AROUND_MS = 2000;
const NEIGHBOURS = 5;

const ms = (us) => `${(us / 1000).toFixed(2)} ms`;

function nameOf({ number, loss, missing, reason }, stream) {
  return `Packet ${number} of ${stream}` + (loss ? `: lost, ${loss}` : "") +
    (missing ? `: ${missing} missing before it, ${reason}` : "");
}

/**
 * `packets` are those of the stream, as Timing has them, and `index` is the packet's among them;
 * `wallMs` has to be added to their times for the wall clock. `run` runs a command.
 */
export async function explain(stream, packets, index, wallMs, log, run) {
  const at = packets[index].time + wallMs;
  const { causes } = await run(["why", stream, "--last", "130"]);
  const found = causes.filter(({ first_ms, last_ms }) =>
    first_ms - AROUND_MS <= at && at <= last_ms + AROUND_MS);
  const rows = packets.slice(Math.max(0, index - NEIGHBOURS), index + NEIGHBOURS + 1)
    .map((packet) => [
      (packet === packets[index] ? "▶ " : "") + packet.number, timeOf(packet.time + wallMs),
      ms(packet.error), packet.loss ?? "",
      packet.missing ? `${packet.missing}, ${packet.reason}` : "",
      ms(packet.dispatch), ms(packet.client),
    ]);
  const events = log.around(at, AROUND_MS)
    .map((entry) => [timeOf(entry.at_ms), entry.kind, entry.subject, entry.text]);
  return ask(nameOf(packets[index], stream), [
    ...(found.length ? causesOf(found) : ["Nothing went wrong within two seconds of it."]),
    tableOf(["Packet", "Arrived", "Late by", "Lost", "Missing before", "Dispatched in",
      "Client's part"], rows, ""),
    tableOf(["Time", "What", "Of", ""], events, "Nothing else happened around it."),
  ]);
}
