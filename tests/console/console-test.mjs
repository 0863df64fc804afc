// Stories of the console, in a real browser on a virtual television.

import assert from "node:assert/strict";
import {createServer, request} from "node:http";
import {after, afterEach, before, beforeEach, test} from "node:test";
import {Television, keep, kPatience, picture, startBrowser, waitFor} from "./television.mjs";

const kOffer = 'role=dialog[name="New firmware is available"]';
let browser;
let television;
let page;
let complaints;

before(async () => { browser = await startBrowser(); });
after(async () => { await browser?.close(); });

beforeEach(async () => {
  television = new Television();
  page = await browser.context.newPage();
  await page.setViewportSize({width: 1280, height: 900});
  complaints = [];
  page.on("pageerror", (error) => complaints.push(error.message));
  page.on("console", (message) => {
    const isExpected = /WebSocket connection|ERR_CONNECTION/.test(message.text()); // while the set reboots
    if (message.type() === "error" && !isExpected) complaints.push(message.text());
  });
});

afterEach(async (context) => {
  keep(`${context.name.replace(/\W+/g, "-")}.log`, television.log());
  await page.close();
  await television.remove();
});

async function open() {
  await page.goto(await television.switchOn());
  await page.locator('#connection[data-state="connected"]').waitFor();
}

const state = () => page.locator("#state-number").textContent();
const stateName = () => page.locator("#state-name").textContent();
const passed = () => page.locator("#way-list li strong").allTextContents();

test("an accepted update is watched, reboots the set, and leaves nothing pending", {timeout: 5 * kPatience}, async () => {
  television.addPanel("select");
  television.addModule("EXT-soundbar");
  await open();

  await page.locator(kOffer).waitFor();
  await waitFor("state 10", async () => (await state()) === "10");
  assert.equal(await stateName(), "upgrade UI shown, waiting for the user", "as the set calls it");
  assert.equal(await page.locator('[data-state="10"] .label').textContent(), "offer shown");
  assert.equal(await page.locator("[data-state] .label").count(), 22);
  await page.locator('[data-module="panel"] .chip.warm').waitFor();
  assert.match(await page.locator("#app-text").textContent(), /about 14 seconds/);
  assert.equal(await page.locator('[data-module="panel"] .installed').textContent(), "1.0");
  await picture(page, "offer", {fullPage: true});

  television.vset("clock", television.set, "--rate", "0.5"); // the write is to be seen on a busy machine, too
  await page.getByRole("button", {name: "Update now"}).click();
  const figures = [];
  await waitFor("true progress above half", async () => {
    const now = Number(await page.locator('[data-module="panel"] [role=progressbar]').getAttribute("aria-valuenow", {timeout: 2000}));
    if (figures.at(-1) !== now) figures.push(now);
    return now > 50;
  });
  assert.ok(figures.length >= 3, `progress moved: ${figures}`);
  assert.deepEqual(figures, [...figures].sort((a, b) => a - b), "progress never falls");
  assert.equal(await state(), "12");
  assert.equal(await page.locator("#published").textContent(), "0 %", "the published key stands still");
  assert.ok(Number(await page.locator("#app-meter").getAttribute("aria-valuenow")) > 0, "the screen's meter moves");
  assert.equal(await page.locator("#app-buttons button").count(), 0, "a running update has no button");
  await picture(page, "progress", {fullPage: true});
  television.vset("clock", television.set, "--rate", "1");

  await page.getByRole("button", {name: "Restart", exact: true}).and(page.locator("#app-close")).click();
  await waitFor("the way through 15 to 19 or the reboot", async () => /the set reboots/.test(television.output));
  await waitFor("the next life of the daemon", async () => (await page.locator("#run-choice option").count()) === 2);
  await waitFor("its end", async () => (await stateName()) === "ended");
  assert.equal(await page.locator("#state-text").textContent(), "Nothing was pending.");
  await waitFor("version 1.1", async () => (await page.locator('[data-module="panel"] .installed').textContent()) === "1.1");
  assert.match(await page.locator("#endings").textContent(), /reboot 0x2000000c after an update.*carried out/s);
  await picture(page, "after-reboot", {fullPage: true});
  assert.equal(television.installed("panel"), "1.1");
  assert.deepEqual(complaints, []);
});

test("a declined update leaves the hardware as it was", {timeout: 3 * kPatience}, async () => {
  television.addPanel("select");
  await open();
  await page.locator(kOffer).waitFor();
  await page.getByRole("button", {name: "Not now"}).click();
  await waitFor("the end of the service", async () => (await stateName()) === "ended");
  assert.ok((await passed()).includes("16"), "by way of state 16");
  assert.ok(!(await passed()).includes("11"), "not by way of state 11");
  assert.equal(await page.locator(kOffer).isVisible(), false);
  assert.equal(television.installed("panel"), "1.0");
  assert.deepEqual(complaints, []);
});

test("a required update cannot be declined", {timeout: 3 * kPatience}, async () => {
  television.addPanel("force", 65536);
  await open();
  await page.locator(kOffer).waitFor();
  assert.match(await page.locator("#app-kicker").textContent(), /Required/);
  assert.deepEqual(await page.locator("#app-buttons button").allTextContents(), ["Update now"]);
  assert.throws(() => television.vset("ui", television.set, "click", "decline"), /there is no button "decline"/);
  await picture(page, "required");
  television.vset("ui", television.set, "click", "accept");
  await page.locator("#app-close").waitFor();
  assert.equal(television.installed("panel"), "1.1");
  assert.deepEqual(complaints, []);
});

test("the power button starts the update at standby, ten minutes after the start", {timeout: 3 * kPatience}, async () => {
  television.addTuner();
  await open();
  await waitFor("state 5", async () => (await passed()).includes("5"));
  television.vset("clock", television.set, "--jump", "660");
  television.vset("clock", television.set, "--rate", "0.5");
  await page.locator("#power-button").focus();
  await page.keyboard.press("Enter");
  await page.locator('#screen[data-power="standby"]').waitFor();
  await waitFor("the tuner's progress", async () => {
    const figure = await page.locator('[data-module="tuner"] [role=progressbar]').getAttribute("aria-valuenow", {timeout: 2000});
    return Number(figure) > 10;
  });
  await page.locator(".bar.lock").first().waitFor();
  await picture(page, "standby", {fullPage: true});
  television.vset("clock", television.set, "--rate", "1");
  await waitFor("version 1.1", async () => (await page.locator('[data-module="tuner"] .installed').textContent()) === "1.1");
  await waitFor("the end of the service", async () => (await stateName()) === "ended");
  assert.deepEqual(complaints, []);
});

test("the page alone plays the unattended story", {timeout: 3 * kPatience}, async () => {
  television.addTuner();
  await open();
  await waitFor("state 5", async () => (await passed()).includes("5"));
  // Logged or inferred, in less than a second or without a trace: what lies behind is drawn as passed.
  for (const number of [0, 1, 2, 3, 4]) {
    assert.equal(await page.locator(`[data-state="${number}"]`).getAttribute("class"), "logged", `state ${number}`);
  }
  const clock = async () => {
    const [hours, minutes] = (await page.locator("#set-clock").textContent()).split(":").map(Number);
    return hours * 60 + minutes;
  };
  const before = await clock();
  await page.locator("#clock-later").click();
  await waitFor("ten minutes", async () => ((await clock()) - before + 1440) % 1440 >= 10);
  await page.locator("#clock-rate").selectOption("10");
  await waitFor("the pace", async () => /rate 10 /.test(television.vset("clock", television.set)));
  await waitFor("the pace on the page", async () => (await page.locator("#set-rate").textContent()) === "10 × faster");
  await picture(page, "clock", {fullPage: true});
  await page.locator("#power-button").click();
  await waitFor("version 1.1", async () => (await page.locator('[data-module="tuner"] .installed').textContent()) === "1.1");
  await waitFor("the end of the service", async () => (await stateName()) === "ended");
  await picture(page, "unattended", {fullPage: true});
  assert.deepEqual(complaints, []);
});

test("the pace of the clock is the page's and a command's alike, and changes nothing for the page", {timeout: 2 * kPatience}, async () => {
  await open();
  const pace = () => page.locator("#clock-rate").inputValue();
  television.vset("clock", television.set, "--rate", "1000");
  await waitFor("the command's pace", async () => (await pace()) === "1000");
  await page.locator("#clock-rate").selectOption("1");
  await page.locator("#clock-rate").blur();
  await waitFor("the page's pace", () => /rate 1 /.test(television.vset("clock", television.set)));
  // A second that was begun at a thousand times the pace is over in a second all the same.
  television.vset("clock", television.set, "--rate", "3");
  await waitFor("the next word of the set", async () => (await pace()) === "3");
  assert.deepEqual(complaints, []);
});

test("a stick put in on the page is installed beside the daemon", {timeout: 3 * kPatience}, async () => {
  television.addTuner(); // for its package the daemon waits
  const stick = television.makeStick();
  await open();
  await page.locator("#usb-files").setInputFiles(stick);
  await waitFor("the stick", async () => (await page.locator("#usb-remove").isEnabled()));
  const fwctl = (...words) => television.vset("exec", television.set, "--", "fwctl", ...words);
  assert.match(fwctl("usb", "check", "/opt/media/USBDriveA", "--key-file", "/root/usb.key"), /tuner: newer, about 8 s/);
  assert.match(fwctl("usb", "install", "/opt/media/USBDriveA", "--key-file", "/root/usb.key"),
    /tuner: updated, 1.1 is installed/);
  assert.match(fwctl("list"), /tuner +package +1\.1/);
  assert.notEqual(await stateName(), "ended");
  assert.deepEqual(complaints, []);
});

test("switches and slot do what they say, on the page and by command", {timeout: 3 * kPatience}, async () => {
  await open();
  const checked = (id) => page.locator(`#${id}`).getAttribute("aria-checked");
  await page.locator("#mirroring").click();
  await waitFor("mirroring", async () => television.vset("mirroring", television.set).trim() === "on");
  television.vset("factory", television.set, "on");
  await waitFor("the factory switch", async () => (await checked("factory")) === "true");
  await page.locator("#pkgmgr").click();
  await waitFor("the package manager", async () => television.vset("pkgmgr", television.set).trim() === "off");
  await page.locator("#usb-files").setInputFiles(television.path("root/var/lib/hardware/../../lib"));
  await waitFor("the stick", async () => (await page.locator("#usb-remove").isEnabled()));
  television.vset("usb", television.set, "remove");
  await waitFor("its removal", async () => (await page.locator("#usb-note").textContent()) === "empty");
  television.vset("ui", television.set, "ignore");
  await waitFor("the next upgrade UI", async () => (await page.locator("#ui-mode").inputValue()) === "ignore");

  // The factory switch stays where it is over a reboot, and is on before the daemon looks at it.
  await page.locator("#restart-button").click();
  await waitFor("the next life of the daemon", async () => (await page.locator("#run-choice option").count()) >= 2);
  assert.equal(await checked("factory"), "true");
  assert.equal(television.vset("exec", television.set, "--", "ls", "/tmp/FACTORY_PRODCUTION").trim(), "/tmp/FACTORY_PRODCUTION");
  assert.deepEqual(complaints, []);
});

test("the log can be filtered", {timeout: 2 * kPatience}, async () => {
  await open();
  await waitFor("records", async () => (await page.locator("#log .record").count()) > 3);
  await page.locator("#log-text").fill("service initialize");
  await waitFor("the filter", async () => {
    const texts = await page.locator("#log .record .what").allTextContents();
    return texts.length > 0 && texts.every((text) => /service initialize/.test(text));
  });
});

test("a page of another origin cannot connect, read or write", {timeout: 2 * kPatience}, async () => {
  const url = await television.switchOn();
  const foreign = createServer((_, response) => response.end("<!doctype html><title>foreign</title>"));
  await new Promise((resolve) => foreign.listen(0, "127.0.0.1", resolve));
  try {
    await page.goto(`http://127.0.0.1:${foreign.address().port}/`);
    const socket = await page.evaluate((target) => new Promise((resolve) => {
      const made = new WebSocket(target);
      made.onopen = () => resolve("open");
      made.onerror = () => resolve("refused");
    }), `${url.replace("http", "ws")}socket`);
    assert.equal(socket, "refused");
    const read = await page.evaluate((target) => fetch(target).then((answer) => answer.text(), () => "refused"), url);
    assert.equal(read, "refused");
    const written = await page.evaluate((target) => fetch(`${target}usb/evil.txt`, {method: "PUT", body: "x", mode: "no-cors"})
      .then(() => "sent", () => "refused"), url);
    assert.equal(written, "refused");
  } finally {
    foreign.close();
  }
  assert.equal(await status(url, {path: "/"}), 200);
  assert.equal(await status(url, {path: "/", headers: {Host: "television.example:80"}}), 403, "a name of somebody else's");
  assert.equal(await status(url, {path: "/usb/a", method: "PUT"}), 403, "an upload without an origin");
  assert.equal(await status(url, {path: "/usb/a", method: "PUT", headers: {Origin: "http://127.0.0.1:1"}}), 403);
  const upgrade = {Connection: "Upgrade", Upgrade: "websocket", "Sec-WebSocket-Version": "13", "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="};
  const origin = url.slice(0, -1);
  assert.equal(await status(url, {path: "/socket", headers: {...upgrade, Origin: origin}}), 101);
  assert.equal(await status(url, {path: "/socket", headers: upgrade}), 403, "a socket without an origin");
  assert.equal(await status(url, {path: "/socket", headers: {...upgrade, Origin: "http://localhost:9"}}), 403);
  assert.equal(await status(url, {path: "/socket", headers: {...upgrade, Origin: origin, Host: "television.example"}}), 403);
});

test("the page fits a phone, and the dark", {timeout: 2 * kPatience}, async () => {
  television.addPanel("select");
  await page.setViewportSize({width: 390, height: 844});
  await page.emulateMedia({colorScheme: "dark"});
  await open();
  await page.locator(kOffer).waitFor();
  const overflow = await page.evaluate(() => document.documentElement.scrollWidth - document.documentElement.clientWidth);
  assert.ok(overflow <= 0, `${overflow} pixels stick out`);
  await picture(page, "phone-dark", {fullPage: true});
  await page.setViewportSize({width: 1280, height: 900});
  await picture(page, "desk-dark");
  assert.deepEqual(complaints, []);
});

// The status that a bare client gets.
function status(url, options) {
  const {hostname, port} = new URL(url);
  return new Promise((resolve, reject) => {
    const asked = request({hostname, port, ...options}, (answer) => {
      answer.resume();
      resolve(answer.statusCode);
    });
    asked.on("upgrade", (answer, socket) => {
      socket.destroy();
      resolve(answer.statusCode);
    });
    asked.on("error", reject);
    asked.end();
  });
}
