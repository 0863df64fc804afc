// The television: screen with the application on it, buttons, slot and switches.

import {$, element, replace, seconds, setText, size, toast} from "./dom.js";

const kNormal = 0;
const kStandby = 2;
const kLater = 600; // seconds: what the daemon leaves between its start and an update at standby

export class Television {
  constructor(connection, model) {
    this.connection = connection;
    this.model = model;
    this.runningSince = null;
    $("power-button").onclick = () => this.togglePower();
    $("restart-button").onclick = () => this.order("reboot");
    $("clock-later").onclick = () => this.order("clock-jump", {seconds: kLater});
    $("clock-rate").onchange = (event) => this.order("clock-rate", {rate: Number(event.target.value)});
    $("poweroff-button").onclick = () => this.order("poweroff");
    $("usb-files").onchange = (event) => this.insertStick([...event.target.files]);
    $("usb-remove").onclick = () => this.order("usb-remove");
    for (const [id, name, key] of [["mirroring", "mirroring", "mirroring"], ["factory", "factory", "factory"],
      ["pkgmgr", "package-manager", "package_manager"]]) {
      $(id).onclick = () => this.order(name, {on: !this.model.switches?.[key]});
    }
    $("ui-mode").onchange = (event) => {
      const isClicking = !["interactive", "ignore"].includes(event.target.value);
      this.order("ui", {behaviour: event.target.value, after: isClicking ? 1500 : 0});
    };
  }

  async order(name, details) {
    const fault = await this.connection.order(name, details);
    if (fault) toast(fault);
    return !fault;
  }

  togglePower() {
    const isOn = this.model.power?.state === kNormal;
    this.order("power", {state: isOn ? kStandby : kNormal});
  }

  async insertStick(files) {
    if (files.length === 0 || !(await this.order("usb-begin"))) return;
    for (const file of files) {
      const inside = (file.webkitRelativePath || file.name).split("/").slice(file.webkitRelativePath ? 1 : 0);
      const answer = await fetch(`/usb/${inside.map(encodeURIComponent).join("/")}`, {method: "PUT", body: file})
        .catch((error) => ({ok: false, text: async () => error.message}));
      if (!answer.ok) {
        toast(`${file.name}: ${await answer.text()}`);
        return;
      }
    }
    await this.order("usb-insert");
    $("usb-files").value = "";
  }

  update(isConnected) {
    this.showPower(isConnected);
    this.showApplication(isConnected);
    this.showClock(isConnected);
    this.showSlot();
    this.showSwitches();
  }

  showPower(isConnected) {
    const power = this.model.power;
    const state = !isConnected || !power ? "off" : power.state === kNormal ? "on" : "standby";
    $("screen").dataset.power = state;
    $("led").dataset.power = state;
    setText($("power-text"), !isConnected ? "no power" : state === "on" ? "on" : power?.name || `power state ${power?.state}`);
    setText($("screen-note"), state === "off" ? "no signal from the set" : "");
    $("power-button").setAttribute("aria-pressed", String(state === "on"));
    const ending = isConnected ? power?.pending_end : "";
    const held = this.model.locks?.held?.length ?? 0;
    $("end-note").hidden = !ending;
    setText($("end-note"), ending === "" ? "" : `A ${ending} is on its way${held ? `; it waits for ${held} power lock${held > 1 ? "s" : ""}` : ""}.`);
  }

  showApplication(isConnected) {
    const shown = this.model.screen;
    const isVisible = isConnected && shown?.shown && this.model.power?.state === kNormal;
    $("screen").dataset.app = isVisible ? "shown" : "none";
    $("app").hidden = !isVisible;
    if (!isVisible) return;
    $("app").dataset.view = shown.view;
    setText($("app-kicker"), shown.kicker ?? "");
    setText($("app-title"), shown.title ?? "");
    setText($("app-text"), shown.text ?? "");
    this.showProgress(shown);
    const buttons = (shown.buttons ?? []).map((button) => element("button", {
      type: "button", id: `app-${button.id}`, class: button.primary ? "primary" : null}, button.label));
    if (!replace($("app-buttons"), ...buttons)) return;
    for (const button of shown.buttons ?? []) {
      $(`app-${button.id}`).onclick = () => this.order("click", {button: button.id});
    }
  }

  showClock(isConnected) {
    const {clock, rate = 1} = this.model.set ?? {};
    for (const id of ["clock-later", "clock-rate"]) $(id).disabled = !isConnected || !clock;
    const choice = $("clock-rate");
    if (document.activeElement === choice) return;
    // A command may have set any pace.
    const known = [...choice.options].find((option) => Number(option.value) === rate);
    if (!known) choice.append(element("option", {value: rate}, `${rate} × the PC's`));
    choice.value = String(rate);
  }

  // The application knows the expected time and the published key; the key stands still until the end.
  showProgress(shown) {
    const isRunning = shown.view === "running" || shown.view === "accepted";
    const isFinished = shown.view === "finished";
    const now = this.model.now();
    if (!isRunning) this.runningSince = null;
    else this.runningSince ??= this.model.timeOfState(12) ?? now;
    $("app-progress").hidden = !isRunning && !isFinished;
    if (!isRunning && !isFinished) return;
    const passed = isRunning ? Math.max(0, now - this.runningSince) : 0;
    const expected = Math.max(1, shown.seconds) * 1000;
    const percent = isFinished ? 100 : Math.min(95, Math.round(100 * passed / expected));
    $("app-meter").firstElementChild.style.width = `${percent}%`;
    $("app-meter").setAttribute("aria-valuenow", String(percent));
    setText($("app-progress-text"), isFinished ? "100 %"
      : `${seconds(passed)} of about ${shown.seconds} s`);
  }

  showSlot() {
    const usb = this.model.usb;
    const files = usb?.files ?? [];
    const total = files.reduce((sum, file) => sum + file.size, 0);
    const names = files.slice(0, 3).map((file) => file.name).join(", ");
    const count = files.length + (usb?.more ?? 0);
    setText($("usb-note"), !usb?.inserted ? "empty"
      : count === 0 ? "an empty stick" : `${names}${count > 3 ? ` and ${count - 3} more` : ""} (${size(total)})`);
    $("usb-remove").disabled = !usb?.inserted;
  }

  showSwitches() {
    const switches = this.model.switches ?? {};
    $("mirroring").setAttribute("aria-checked", String(Boolean(switches.mirroring)));
    $("factory").setAttribute("aria-checked", String(Boolean(switches.factory)));
    $("pkgmgr").setAttribute("aria-checked", String(Boolean(switches.package_manager)));
    if (document.activeElement !== $("ui-mode") && switches.ui) $("ui-mode").value = switches.ui;
    const notes = {interactive: "A person clicks on the screen above.", ignore: "It shows the offer and answers nothing."};
    setText($("ui-note"), notes[switches.ui] ?? `It clicks by itself after ${seconds(switches.ui_after_ms ?? 0)}.`);
  }
}
