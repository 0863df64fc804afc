// Keeps what the set has told, and has each part of the page show it.

import {$, clock, setText} from "./dom.js";
import {Connection} from "./connection.js";
import {Log} from "./log.js";
import {Machine} from "./machine.js";
import {Modules} from "./modules.js";
import {Television} from "./television.js";
import {Timeline} from "./timeline.js";
import {updateLists} from "./lists.js";

class Model {
  mountSpans = new Map(); // directory -> bars
  heard = 0; // performance.now() of the last word about the set's time
  boot = 0;

  take(sections) {
    Object.assign(this, sections);
    if (sections.set) this.heard = performance.now();
    if (sections.mounts) this.watchMounts(sections.mounts);
  }

  forget() {
    this.mountSpans = new Map();
    this.boot = this.set?.time_ms ?? 0;
  }

  // The set's time now: it goes on between two messages, at the set's own rate.
  now() {
    return (this.set?.time_ms ?? 0) + (performance.now() - this.heard) * (this.set?.rate ?? 1);
  }

  bootTime() {
    return this.way?.at(-1)?.start_ms ?? this.boot;
  }

  isAlive(run) {
    return Boolean(run && run.end_ms === null && this.daemon?.pid && this.daemon.pid === run.pid && run === this.way?.at(-1));
  }

  timeOfState(state) {
    return this.way?.at(-1)?.steps.findLast((step) => step.state === state)?.time_ms;
  }

  watchMounts(mounts) {
    const there = new Set(mounts.map((mount) => mount.directory));
    for (const directory of there) {
      const bars = this.mountSpans.get(directory) ?? [];
      if (bars.at(-1)?.end !== null) bars.push({start: this.now(), end: null, text: "mounted"});
      this.mountSpans.set(directory, bars);
    }
    for (const [directory, bars] of this.mountSpans) {
      if (!there.has(directory) && bars.at(-1).end === null) bars.at(-1).end = this.now();
    }
  }
}

const model = new Model();
const log = new Log();
const machine = new Machine(model);
const modules = new Modules(model);
const timeline = new Timeline(model);
let isConnected = false;
let isDrawing = false;

const connection = new Connection({
  greeting(message) {
    log.reset();
    model.take(message.sections);
    model.forget();
    model.watchMounts(model.mounts ?? []);
    learn(log.add(message.records));
    draw();
  },
  news(message) {
    model.take(message.sections ?? {});
    learn(log.add(message.records ?? []));
    draw();
  },
  state(name) {
    isConnected = name === "connected";
    $("connection").dataset.state = name;
    const words = {connected: "connected", connecting: "connecting", lost: "no answer: is the set running?"};
    setText($("connection"), words[name]);
    draw();
  },
});
const television = new Television(connection, model);

function learn(records) {
  for (const record of records) timeline.learn(record);
}

// At most once per frame, however much is told.
function draw() {
  if (isDrawing) return;
  isDrawing = true;
  requestAnimationFrame(() => {
    isDrawing = false;
    drawNow();
  });
}

function drawNow() {
  const name = model.set?.name ?? "Virtual television";
  setText($("set-name"), name);
  document.title = `${name} · virtual television`;
  const rate = model.set?.rate ?? 1;
  $("set-rate").hidden = rate === 1;
  setText($("set-rate"), `${rate} × faster`);
  television.update(isConnected);
  machine.update();
  modules.update();
  updateLists(model);
  drawTime();
}

function drawTime() {
  if (!model.set) return;
  setText($("set-clock"), clock(model.now()));
  if (isConnected) {
    timeline.update();
    television.update(isConnected);
  }
}

setInterval(drawTime, 500);
