// Small helpers: elements, times, sizes.

export const $ = (id) => document.getElementById(id);

// element("p", {class: "note", "aria-hidden": true, onclick: f}, "text", child, ...)
export function element(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  return fill(made, attributes, children);
}

export function svg(name, attributes = {}, ...children) {
  return fill(document.createElementNS("http://www.w3.org/2000/svg", name), attributes, children);
}

function fill(made, attributes, children) {
  for (const [key, value] of Object.entries(attributes)) {
    if (value === undefined || value === null || value === false) continue;
    if (key.startsWith("on")) made.addEventListener(key.slice(2), value);
    else made.setAttribute(key, value === true ? "" : value);
  }
  made.append(...children.filter((child) => child !== null && child !== undefined && child !== ""));
  return made;
}

// Puts new children in place of the old ones, unless they look the same: focus and selection stay then.
export function replace(parent, ...children) {
  const next = parent.cloneNode(false);
  next.append(...children);
  if (next.innerHTML === parent.innerHTML && !parent.querySelector("[data-live]")) return false;
  parent.replaceChildren(...next.childNodes);
  return true;
}

export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

const two = (number) => String(number).padStart(2, "0");

// The set's time is UTC, whatever the PC's zone is.
export function clock(ms, withTenths = false) {
  const date = new Date(ms);
  const text = `${two(date.getUTCHours())}:${two(date.getUTCMinutes())}:${two(date.getUTCSeconds())}`;
  return withTenths ? `${text}.${String(date.getUTCMilliseconds()).padStart(3, "0")}` : text;
}

export function day(ms) {
  return new Date(ms).toISOString().slice(0, 10);
}

export function size(bytes) {
  if (bytes < 1024) return `${bytes} B`;
  if (bytes < 1024 * 1024) return `${(bytes / 1024).toFixed(0)} KiB`;
  return `${(bytes / 1024 / 1024).toFixed(1)} MiB`;
}

export function seconds(ms) {
  if (ms < 10000) return `${(ms / 1000).toFixed(1)} s`;
  if (ms < 120000) return `${Math.round(ms / 1000)} s`;
  return `${Math.round(ms / 60000)} min`;
}

let hiding = 0;
export function toast(text) {
  const box = $("toast");
  box.textContent = text;
  box.hidden = false;
  clearTimeout(hiding);
  hiding = setTimeout(() => { box.hidden = true; }, 6000);
}
