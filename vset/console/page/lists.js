// What stands in tables: ends of the set, packages, settings.

import {$, clock, day, element, replace, size} from "./dom.js";

const kReasons = {0x2000000c: "after an update", 0x20000020: "update interrupted by switching on"};

function endingRow(ending) {
  const reason = ending.kind === "reboot" ? `0x${ending.reason.toString(16).padStart(8, "0")}` : String(ending.reason);
  return element("tr", {}, element("td", {}, `${day(ending.time_ms)} ${clock(ending.time_ms)}`),
    element("td", {}, ending.kind, " ", element("span", {class: "note"}, `${reason} ${kReasons[ending.reason] ?? ""}`)),
    element("td", {}, ending.requester?.command || "–"), element("td", {}, ending.outcome));
}

function table(headings, rows) {
  return element("table", {}, element("thead", {}, element("tr", {}, ...headings.map((text) => element("th", {scope: "col"}, text)))),
    element("tbody", {}, ...rows));
}

function endings(model) {
  const all = [...(model.reboots ?? [])].reverse().slice(0, 12);
  return all.length ? table(["when", "what", "asked by", "outcome"], all.map(endingRow))
    : element("p", {class: "note"}, "none so far");
}

function packages(model) {
  const requests = new Map((model.packages?.requests ?? []).map((request) => [`${request.package}.img`, request]));
  const names = new Set([...(model.feed ?? []).map((file) => file.name), ...requests.keys()]);
  if (names.size === 0) return element("p", {class: "note"}, "The feed is empty: put packages into SET/root/srv/feed.");
  const rows = [...names].sort().map((name) => {
    const file = (model.feed ?? []).find((entry) => entry.name === name);
    return element("tr", {}, element("td", {}, name), element("td", {}, file ? size(file.size) : "not in the feed"),
      element("td", {}, requests.get(name)?.state ?? "not asked for"));
  });
  return table(["package", "in the feed", "delivery"], rows);
}

function settings(model) {
  return Object.entries(model.settings ?? {}).flatMap(([key, setting]) => [
    element("dt", {title: setting.writer ? `written by ${setting.writer}` : "not written since the boot"},
      key.replace(/^memory\//, "")), element("dd", {}, String(setting.value))]);
}

export function updateLists(model) {
  replace($("endings"), endings(model));
  replace($("feed"), packages(model));
  replace($("settings"), ...settings(model));
}
