// The state machine as a drawing: every state in its place, the current one lit, the way taken marked.

import {$, clock, element, replace, setText, svg} from "./dom.js";
import {passedStates} from "./way.js";

// Where each state stands, and what happens in it; what it is called, the set tells (`states`: name, label).
const kStates = [
  {at: [0, 0], text: "The daemon initialises: modules, semaphore, watchdog."},
  {at: [1, 0], text: "The boot worker starts."},
  {at: [2, 0], text: "Every module's package is requested, once per boot."},
  {at: [3, 0], text: "The boot flag is raised next."},
  {at: [4, 0], text: "Each module is checked against both image sources; the list is written."},
  {at: [5, 0], text: "The next second decides: offer, wait for standby, or end."},
  {at: [5, 1], text: "Up to 60 s for the package manager."},
  {at: [4, 1], text: "Power on, not in the factory, nobody else updating."},
  {at: [3, 1], text: "Up to nine attempts, then 5 s for the application to start."},
  {at: [2, 1], text: "Shown or not: the next second tells."},
  {at: [1, 1], text: "The user decides, without a limit in time."},
  {at: [1, 2], text: "The update starts within a second."},
  {at: [2, 2], text: "One module after the other is written."},
  {at: [3, 2], text: "The UI is told that it is finished."},
  {at: [4, 2], text: "Until the user closes the UI, without a limit in time."},
  {at: [5, 2], text: "Reboot if an upgrade ran; otherwise it stays here."},
  {at: [0, 2], text: "The user declined, or the UI could not be shown."},
  {at: [0, 3], text: "Ends, unless modules wait for the update at standby."},
  {at: [6, 2], text: "The reboot is requested."},
  {at: [6, 3], text: "The set goes down."},
  {at: [2, 3], text: "The daemon gives back what it holds."},
  {at: [3, 3], text: "The process is gone."},
];

const kColumn = 142;
const kRow = 118;
const kBox = [116, 54];
const kLeft = 18;
const kTop = 44;

// [from, to, label]; straight lines between neighbours.
const kEdges = [
  [0, 1], [1, 2], [2, 3], [3, 4], [4, 5], [5, 6], [6, 7], [7, 8], [8, 9], [9, 10], [10, 11, "1 accepted"],
  [11, 12], [12, 13], [13, 14], [14, 15, "4"], [15, 18], [18, 19], [16, 17], [17, 20], [20, 21],
];

const corner = (state) => [kLeft + kStates[state].at[0] * kColumn, kTop + kStates[state].at[1] * kRow];
const centre = (state) => [corner(state)[0] + kBox[0] / 2, corner(state)[1] + kBox[1] / 2];

function edge([from, to, label]) {
  const [x1, y1] = centre(from);
  const [x2, y2] = centre(to);
  const isAcross = y1 === y2;
  const sign = Math.sign(isAcross ? x2 - x1 : y2 - y1);
  const half = isAcross ? kBox[0] / 2 : kBox[1] / 2;
  const start = isAcross ? [x1 + sign * half, y1] : [x1, y1 + sign * half];
  const end = isAcross ? [x2 - sign * half, y2] : [x2, y2 - sign * half];
  const tip = isAcross ? `${end[0] - sign * 8},${end[1] - 4.5} ${end[0]},${end[1]} ${end[0] - sign * 8},${end[1] + 4.5}`
    : `${end[0] - 4.5},${end[1] - sign * 8} ${end[0]},${end[1]} ${end[0] + 4.5},${end[1] - sign * 8}`;
  const middle = [(start[0] + end[0]) / 2, (start[1] + end[1]) / 2];
  return svg("g", {"data-edge": `${from}-${to}`},
    svg("path", {class: "edge", d: `M${start} L${end}`}),
    svg("polygon", {class: "arrow", points: tip}),
    label ? svg("text", {class: "edge-text", x: middle[0] + (isAcross ? 0 : 8), y: middle[1] + (isAcross ? -6 : 4),
      "text-anchor": isAcross ? "middle" : "start"}, label) : "");
}

function box(state, {name, label}) {
  const [x, y] = corner(state);
  const {text} = kStates[state];
  return svg("g", {"data-state": state},
    svg("title", {}, `${state}: ${name}. ${text}`),
    svg("rect", {class: "box", x, y, width: kBox[0], height: kBox[1], rx: 11}),
    svg("text", {class: "number", x: x + kBox[0] / 2, y: y + 23, "text-anchor": "middle"}, String(state)),
    svg("text", {class: "label", x: x + kBox[0] / 2, y: y + 41, "text-anchor": "middle"}, label));
}

function drawing(words) {
  const width = 2 * kLeft + 6 * kColumn + kBox[0];
  const height = kTop + 3 * kRow + kBox[1] + 14;
  const [groupX, groupY] = corner(10);
  const side = corner(16)[0] + kBox[0] / 2;
  const decline = `M${groupX - 12},${groupY + kBox[1] / 2} L${side},${groupY + kBox[1] / 2} L${side},${corner(16)[1]}`;
  const lanes = [["BOOT", 0, 0], ["OFFER  ·  answers count in 7 to 10", 1, 1], ["UPDATE", 2, 2], ["END", 3, 0]];
  const notes = [[4, "nothing to do: 20"], [7, "no: 20 or stay"], [9, "not shown: 16"]];
  const made = svg("svg", {class: "machine", viewBox: `0 0 ${width} ${height}`, role: "img", "aria-labelledby": "state-name"},
    svg("rect", {class: "group", x: groupX - 12, y: groupY - 10, width: 3 * kColumn + kBox[0] + 24, height: kBox[1] + 36, rx: 16}),
    ...lanes.map(([text, row, column]) => svg("text", {class: "zone", x: kLeft + column * kColumn, y: kTop + row * kRow - 17}, text)),
    svg("g", {"data-edge": "10-16"}, svg("path", {class: "edge", d: decline}),
      svg("polygon", {class: "arrow", points: `${side - 4.5},${corner(16)[1] - 8} ${side},${corner(16)[1]} ${side + 4.5},${corner(16)[1] - 8}`}),
      svg("text", {class: "edge-text", x: side + 7, y: groupY + kBox[1] / 2 - 7}, "4 declined")),
    ...kEdges.map(edge),
    ...words.map((each, state) => box(state, each)),
    ...notes.map(([state, text]) => svg("text", {class: "edge-text", x: centre(state)[0], y: corner(state)[1] + kBox[1] + 16, "text-anchor": "middle"}, text)),
    svg("text", {class: "edge-text", x: centre(5)[0] + 8, y: corner(5)[1] + kBox[1] + 20}, "none to offer: 20, or stay"),
    svg("text", {class: "edge-text", x: corner(21)[0] + kBox[0] + 10, y: centre(21)[1] + 4}, "20 and 21: from any state"));
  return made;
}

export class Machine {
  constructor(model) {
    this.model = model;
    this.chosen = null; // a run's start; null: the latest
    $("run-choice").onchange = (event) => {
      const isLatest = event.target.selectedIndex === 0;
      this.chosen = isLatest ? null : Number(event.target.value);
      this.update();
    };
  }

  run() {
    const runs = this.model.way ?? [];
    return runs.find((run) => run.start_ms === this.chosen) ?? runs.at(-1);
  }

  update() {
    if (!this.model.states) return; // the set has not told yet
    if (!$("machine").hasChildNodes()) $("machine").append(drawing(this.model.states));
    this.showRuns();
    const run = this.run();
    const steps = run?.steps ?? [];
    const last = steps.at(-1);
    const isAlive = this.model.isAlive(run);
    this.showState(run, last, isAlive);
    this.mark(steps, isAlive);
    this.list(steps);
  }

  nameOf(state) {
    return this.model.states[state]?.name ?? "unknown";
  }

  showRuns() {
    const runs = [...(this.model.way ?? [])].reverse();
    const options = runs.map((run, index) => element("option", {value: run.start_ms},
      `${clock(run.start_ms)}${index === 0 ? " (latest)" : ""}`));
    const chosen = this.run()?.start_ms;
    if (replace($("run-choice"), ...options) && chosen) $("run-choice").value = String(chosen);
  }

  showState(run, last, isAlive) {
    setText($("state-number"), last ? String(last.state) : "–");
    $("state-number").toggleAttribute("data-ended", !isAlive);
    setText($("state-name"), !last ? "no daemon has run yet" : isAlive ? this.nameOf(last.state)
      : last.state === 21 ? "ended" : `ended in ${last.state}, ${this.nameOf(last.state)}`);
    setText($("state-text"), !last ? "" : isAlive ? kStates[last.state]?.text ?? "" : this.why(run));
  }

  // Why the service ended, as far as the way tells.
  why(run) {
    const states = run.steps.map((step) => step.state);
    if (states.includes(18) || states.includes(19)) return "The set rebooted after the update.";
    if (states.includes(16)) return "The offer was not accepted, and nothing waits for standby.";
    if (states.includes(4) && !states.includes(5)) return "Nothing was pending.";
    return "The service has ended.";
  }

  mark(steps, isAlive) {
    const passed = passedStates(steps, kEdges);
    for (const group of $("machine").querySelectorAll("[data-state]")) {
      const state = Number(group.dataset.state);
      const isNow = isAlive && steps.at(-1)?.state === state;
      group.setAttribute("class", isNow ? "now" : passed.get(state) ?? "");
    }
    const pairs = new Set(steps.slice(1).map((step, index) => `${steps[index].state}-${step.state}`));
    for (const group of $("machine").querySelectorAll("[data-edge]")) {
      const [from, to] = group.dataset.edge.split("-").map(Number);
      const isTaken = pairs.has(group.dataset.edge) || (to === 16 && steps.some((step, index) => step.state === 16 && index > 0))
        || (passed.has(from) && passed.has(to) && Math.abs(from - to) === 1);
      for (const part of group.children) part.classList.toggle("taken", isTaken && part.tagName !== "text");
    }
  }

  list(steps) {
    setText($("way-count"), steps.length ? `(${steps.length} steps)` : "");
    replace($("way-list"), ...steps.map((step) => element("li", {},
      element("span", {class: "note"}, clock(step.time_ms, true)), element("strong", {}, String(step.state)),
      element("span", {}, this.nameOf(step.state), " ",
        element("span", {class: "note"}, step.source === "logged" ? "" : `inferred: “${step.reason}”`)))));
  }
}
