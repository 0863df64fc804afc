// The timeline: states, power, locks, flags, mounts and threads of the daemon, beside each other.

import {$, clock, element, seconds} from "./dom.js";

// A thread is called after what it logged; its own name says less.
const kRoles = [
  [/^(FWSVC_state_handler|main|pwrctl_|service_initialize)/, "main loop"],
  [/^(chk_pkgMgrReady)/, "package manager wait"],
  [/^(launch_Device_Upgrade_UI|sendLaunchRequest)/, "UI launch"],
  [/^(doUpdateFirmwareUI)/, "UI update"],
  [/^(doUpdateFirmwareAll)/, "standby update"],
  [/^(check_update_module|request_empdownload|downloadEMP|writeFirmwareUpdateList|isNeedUpdate)/, "boot worker"],
  [/^(updateFirmware|update)$/, "update worker"],
];

export class Timeline {
  constructor(model) {
    this.model = model;
    this.span = 30;
    this.roles = new Map(); // "pid/tid" -> name
    for (const button of $("spans").querySelectorAll("button")) {
      button.onclick = () => this.choose(button);
    }
  }

  choose(button) {
    this.span = Number(button.dataset.span);
    for (const other of $("spans").querySelectorAll("button")) {
      other.setAttribute("aria-pressed", String(other === button));
    }
    this.update();
  }

  learn(record) {
    const key = `${record.pid}/${record.tid}`;
    if (this.roles.has(key)) return;
    const role = kRoles.find(([pattern]) => pattern.test(record.f));
    if (role) this.roles.set(key, role[1]);
  }

  update() {
    const end = this.model.now();
    const start = end - this.span * 1000;
    const lanes = [this.stateLane(end), this.powerLane(end), ...this.lockLanes(end), ...this.flagLanes(end),
      ...this.mountLanes(end), ...this.threadLanes(end)]
      .map(([name, bars]) => [name, bars.filter((bar) => (bar.end ?? end) >= start && bar.start <= end)])
      .filter(([, bars], index) => bars.length > 0 || index < 2);
    $("timeline").replaceChildren(...lanes.map((lane) => this.lane(lane, start, end)), this.ticks(start, end));
  }

  lane([name, bars], start, end) {
    const place = (time) => 100 * Math.min(1, Math.max(0, (time - start) / (end - start)));
    return element("div", {class: "lane"}, element("span", {class: "lane-name", title: name}, name),
      element("div", {class: "track"}, ...bars.map((bar) => {
        const left = place(bar.start);
        const width = Math.max(0, place(bar.end ?? end) - left);
        const text = `${name}, ${bar.text}: ${clock(bar.start, true)}, ${bar.end ? seconds(bar.end - bar.start) : "goes on"}`;
        const made = element("span", {class: `bar ${bar.kind ?? ""}`, title: text, role: "img", "aria-label": text}, bar.text ?? "");
        made.style.left = `${left}%`;
        made.style.width = `${width}%`;
        return made;
      })));
  }

  ticks(start, end) {
    const track = element("div", {class: "track"});
    for (let step = 0; step <= 4; ++step) {
      const tick = element("span", {}, clock(start + (end - start) * step / 4));
      tick.style.left = `${step * 25}%`;
      track.append(tick);
    }
    return element("div", {class: "lane ticks"}, element("span", {class: "lane-name"}, "the set's time"), track);
  }

  stateLane(now) {
    const bars = [];
    for (const run of this.model.way ?? []) {
      run.steps.forEach((step, index) => {
        const next = run.steps[index + 1]?.time_ms ?? run.end_ms ?? (this.model.isAlive(run) ? null : step.time_ms);
        bars.push({start: step.time_ms, end: next, text: String(step.state),
          kind: step.source === "logged" ? "" : "inferred", title: this.model.states?.[step.state]?.name});
      });
    }
    return ["service state", bars];
  }

  powerLane() {
    const power = this.model.power;
    if (!power) return ["power", []];
    const name = (state) => ({0: "on", 2: "standby"}[state] ?? `state ${state}`);
    const changes = power.history ?? [];
    const bars = changes.map((change, index) => ({start: change.time_ms, end: changes[index + 1]?.time_ms ?? null,
      text: name(change.current), kind: "power"}));
    const first = changes[0];
    bars.unshift({start: this.model.bootTime(), end: first?.time_ms ?? null, text: name(first?.previous ?? power.state), kind: "power"});
    return ["power", bars];
  }

  lockLanes() {
    const locks = this.model.locks ?? {};
    const lanes = new Map();
    const add = (lock, end) => {
      const name = `lock ${lock.kind} (${lock.owner.command || "gone"})`;
      if (!lanes.has(name)) lanes.set(name, []);
      lanes.get(name).push({start: lock.start_ms, end, text: `${seconds(lock.duration_ms)}${lock.end ? `, ${lock.end}` : ""}`, kind: "lock"});
    };
    for (const lock of locks.history ?? []) add(lock, lock.end_ms);
    for (const lock of locks.held ?? []) add(lock, null);
    return [...lanes];
  }

  flagLanes() {
    const flags = this.model.flags ?? {};
    const lanes = new Map();
    for (const step of flags.history ?? []) {
      if (!lanes.has(step.flag)) lanes.set(step.flag, []);
      const bars = lanes.get(step.flag);
      const open = bars.at(-1)?.end === null ? bars.at(-1) : null;
      if (step.step === "raised" && !open) bars.push({start: step.time_ms, end: null, text: "raised"});
      else if (step.step !== "raised" && open) open.end = step.time_ms;
    }
    return [...lanes].map(([flag, bars]) => [`flag ${flag.split("/").pop()}`, bars]);
  }

  mountLanes() {
    return [...this.model.mountSpans].map(([directory, bars]) => [`mount ${directory.split("/").filter(Boolean).pop()}`, bars]);
  }

  threadLanes() {
    const threads = (this.model.daemon?.threads ?? []).map((thread) => {
      const role = this.roles.get(`${thread.pid}/${thread.tid}`) ?? (thread.tid === thread.pid ? "main loop" : thread.name);
      return [`thread ${thread.tid}`, [{start: thread.start_ms, end: thread.end_ms, text: role}]];
    });
    return threads.slice(-14);
  }
}
