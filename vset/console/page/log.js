// The log: every record of the platform log and of the trace, filtered.

import {$, clock, day, element, setText} from "./dom.js";

const kNames = {3: "debug", 4: "info", 5: "warning", 6: "error"};
const kLetters = {3: "d", 4: "i", 5: "w", 6: "e"};
const kMostShown = 1500;
const kMostKept = 20000;

export class Log {
  constructor() {
    this.records = [];
    this.last = 0;
    for (const id of ["log-priority", "log-buffer", "log-ticks"]) $(id).onchange = () => this.redraw();
    $("log-text").oninput = () => this.redraw();
    $("log").onscroll = () => {
      const box = $("log");
      if (box.scrollTop + box.clientHeight < box.scrollHeight - 30) $("log-follow").checked = false;
    };
    $("log-follow").onchange = () => this.follow();
  }

  // Number 0 begins anew: the set has rebooted and counts from the start of its log.
  reset() {
    this.records = [];
    this.last = 0;
    $("log").replaceChildren();
  }

  // Gives the records that were not known.
  add(records) {
    const fresh = records.filter((record) => record.n > this.last);
    if (fresh.length === 0) return fresh;
    this.last = fresh.at(-1).n;
    this.records.push(...fresh);
    if (this.records.length > kMostKept) this.records.splice(0, this.records.length - kMostKept);
    const shown = fresh.filter((record) => this.isWanted(record));
    if (shown.length) {
      $("log").append(...shown.map((record) => this.line(record)));
      while ($("log").childElementCount > kMostShown) $("log").firstElementChild.remove();
      this.follow();
    }
    this.count();
    return fresh;
  }

  isWanted(record) {
    const buffer = $("log-buffer").value;
    const text = $("log-text").value.toLowerCase();
    if (record.p < Number($("log-priority").value)) return false;
    if (buffer !== "both" && record.b !== buffer) return false;
    if (!$("log-ticks").checked && record.f === "FWSVC_state_handler" && /^\d+$/.test(record.m)) return false;
    return text === "" || `${record.m} ${record.f} ${record.tag}`.toLowerCase().includes(text);
  }

  line(record) {
    const where = record.f ? `${record.f}:${record.l}` : record.tag;
    return element("div", {class: "record", "data-fault": /^(Error|Fail|fail)/.test(record.m)},
      element("span", {class: "when", title: day(record.t)}, clock(record.t, true).slice(0, 12)),
      element("span", {class: "where", title: kNames[record.p] ?? record.p}, kLetters[record.p] ?? "?"),
      element("span", {class: "where", title: `${where}, process ${record.pid}, thread ${record.tid}`}, where),
      element("span", {class: "what"}, record.m.trimEnd()));
  }

  redraw() {
    const shown = this.records.filter((record) => this.isWanted(record)).slice(-kMostShown);
    $("log").replaceChildren(...shown.map((record) => this.line(record)));
    this.follow();
    this.count();
  }

  follow() {
    if ($("log-follow").checked) $("log").scrollTop = $("log").scrollHeight;
  }

  count() {
    setText($("log-count"), `${$("log").childElementCount} of ${this.records.length} records`);
  }
}
