// The modules: what is installed, what is offered, and how far an update really is.

import {$, element, replace, setText} from "./dom.js";

const kProgressKey = "memory/ep_firmware_update_app/fw_update_progress";

function kinds(module) {
  if (module.external) return ["external"];
  const sources = new Set((module.offers ?? []).map((offer) => offer.source));
  const found = [];
  if (sources.has("system image")) found.push("built-in");
  if (sources.has("package") || sources.has("feed")) found.push("package");
  return found.length ? found : [module.directory.startsWith("/prd") ? "product" : "system"];
}

function uiUse(offer) {
  return {select: "offered", force: "required"}[offer.ui_use] ?? "at standby";
}

function offerLine(offer, installed) {
  const isOther = offer.version && offer.version !== installed;
  return element("p", {class: "note"}, element("span", {class: isOther ? "offered" : null}, offer.version ?? "?"),
    ` in the ${offer.source}, ${uiUse(offer)}${offer.expected_time ? `, ${offer.expected_time} s` : ""}`);
}

function card(module) {
  const isWriting = module.progress > 0 && module.progress < 100;
  const progress = isWriting ? [
    element("div", {class: "meter", role: "progressbar", "aria-label": `${module.name}: true progress`,
      "aria-valuemin": 0, "aria-valuemax": 100, "aria-valuenow": module.progress}, element("span", {"data-live": module.progress})),
    element("p", {class: "note"}, element("strong", {}, `${module.progress} %`), " written, says its control library")] : [];
  return element("article", {class: `module${module.pending ? " pending" : ""}`, "data-module": module.name},
    element("header", {}, element("h3", {}, module.name),
      ...kinds(module).map((kind) => element("span", {class: "chip plain"}, kind)),
      module.pending ? element("span", {class: "chip warm"}, "pending") : ""),
    element("p", {class: "versions"}, element("span", {class: "installed"}, module.installed ?? "–"),
      element("span", {class: "note"}, "installed")),
    module.error ? element("p", {class: "note"}, module.error) : "",
    ...(module.offers ?? []).map((offer) => offerLine(offer, module.installed)),
    module.external ? element("p", {class: "note"}, "finds its own image; takes no part in offers") : "",
    ...progress);
}

export class Modules {
  constructor(model) {
    this.model = model;
  }

  update() {
    const modules = this.model.modules ?? [];
    const pending = modules.filter((module) => module.pending).length;
    setText($("list-note"), !this.model.modules ? "the control libraries are being asked" : modules.length === 0 ? "no control library is installed in the set"
      : pending ? `${pending} on the update list` : "nothing is on the update list");
    replace($("modules"), ...modules.map(card));
    for (const bar of $("modules").querySelectorAll("[data-live]")) bar.style.width = `${bar.dataset.live}%`;
    this.showKey(modules);
  }

  showKey(modules) {
    const key = this.model.settings?.[kProgressKey]?.value ?? 0;
    const writing = modules.find((module) => module.progress > 0 && module.progress < 100);
    replace($("progress-note"),
      "The daemon publishes ", element("strong", {id: "published"}, `${key} %`), writing ? " while " : ".",
      ...(writing ? [element("strong", {id: "true-progress"}, `${writing.name} is at ${writing.progress} %`), "."] : []),
      " The published key stands still by design: the daemon divides seconds by milliseconds, so it stays at 0 while modules are written and gets only the final 100.");
  }
}
