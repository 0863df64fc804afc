// A virtual television for a test, and a browser that looks at its console.

import {execFileSync, spawn} from "node:child_process";
import {mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync, existsSync} from "node:fs";
import {tmpdir} from "node:os";
import {join} from "node:path";
import {chromium} from "playwright-core";

const {VSET, EXAMPLES, FWMOD, WORK, TEST_KEYS} = process.env;
export const kPatience = 120000; // ms; the machine may be loaded

export async function waitFor(what, condition, limit = kPatience) {
  const end = Date.now() + limit;
  let failure;
  while (Date.now() < end) {
    try {
      const value = await condition();
      if (value) return value;
    } catch (error) {
      failure = error;
    }
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
  throw new Error(`${what}: not within ${limit} ms${failure ? ` (${failure.message})` : ""}`);
}

export class Television {
  constructor() {
    this.scratch = mkdtempSync(join(tmpdir(), "console-"));
    this.set = join(this.scratch, "living-room");
    this.vset("new", this.set);
  }

  // The command's output; throws with its standard error when it fails.
  vset(...words) {
    return execFileSync(VSET, words, {encoding: "utf8", stdio: ["ignore", "pipe", "pipe"]});
  }

  path(...parts) {
    return join(this.set, ...parts);
  }

  put(...words) {
    this.vset("put", this.set, ...words);
  }

  // Hardware with version 1.0 and its control library.
  addModule(name, ...where) {
    this.put("library", join(EXAMPLES, `${name}.so`), ...where);
    this.put("hardware", join(EXAMPLES, "images/1.0/hardware", name.replace("EXT-", "")));
  }

  // A directory of this machine with an encrypted image of the tuner, for the USB slot; its content key is
  // /root/usb.key of the set.
  makeStick() {
    const stick = join(this.scratch, "stick");
    const key = this.path("root/root/usb.key");
    mkdirSync(stick);
    writeFileSync(key, "c".repeat(64), {mode: 0o600});
    execFileSync(FWMOD, ["usb", "--version-header", "1.1", "--payload", join(EXAMPLES, "images/1.1/Tuner/Tuner.bin"),
      "--key-file", key, "--sign-key", join(TEST_KEYS, "maker.pem"), "-o", join(stick, "Tuner.bin")]);
    return stick;
  }

  // The panel, with an image in the system image: large enough that a person can watch it being written.
  addPanel(uiUse, bytes = 1 << 20) {
    this.addModule("panel", "--system");
    const directory = join(this.scratch, "Panel");
    rmSync(directory, {recursive: true, force: true});
    mkdirSync(directory);
    const image = join(directory, "Panel.bin");
    execFileSync(join(EXAMPLES, "make-image"), ["panel", "1.1", String(bytes), image]);
    execFileSync(FWMOD, ["info", "--version", "1.1", "--image", image, "--expected-time", "14", "--ui-use", uiUse,
      "-o", join(directory, "info.json")]);
    this.put("firmware", directory);
  }

  addTuner() {
    this.addModule("tuner");
    // In the feed, and fetched in an earlier boot already: a package that comes now is seen at the next start.
    const image = join(EXAMPLES, "images/1.1/empTuner.img");
    this.put("package", image);
    this.put("package", image, "--delivered");
  }

  async switchOn() {
    this.output = "";
    this.process = spawn(VSET, ["run", this.set], {stdio: ["ignore", "pipe", "pipe"]});
    for (const stream of [this.process.stdout, this.process.stderr]) {
      stream.on("data", (data) => { this.output += data; });
    }
    this.ended = new Promise((resolve) => this.process.on("exit", resolve));
    this.vset("wait", this.set, "on", "--limit", String(kPatience / 1000));
    this.url = this.vset("console", this.set).trim();
    return this.url;
  }

  async remove() {
    this.process?.kill("SIGTERM");
    await this.ended;
    rmSync(this.scratch, {recursive: true, force: true});
  }

  installed(name) {
    const modules = JSON.parse(this.vset("modules", this.set, "--json"));
    return modules.find((module) => module.name === name)?.installed;
  }

  log() {
    return existsSync(this.path("root/var/log/platform.log")) ? readFileSync(this.path("root/var/log/platform.log"), "utf8") : "";
  }
}

export async function startBrowser() {
  const profile = mkdtempSync(join(tmpdir(), "console-browser-"));
  const context = await chromium.launchPersistentContext(profile, {
    executablePath: "/usr/bin/chromium",
    headless: true,
    viewport: {width: 1280, height: 900},
    args: ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
      "--disable-background-networking", "--disable-component-update", "--disable-sync"],
  });
  context.setDefaultTimeout(kPatience);
  return {
    context,
    async close() {
      await context.close();
      rmSync(profile, {recursive: true, force: true});
    },
  };
}

// A picture for people; the test does not look at it.
export async function picture(page, name, options = {}) {
  await page.screenshot({path: join(WORK, "screenshots", `${name}.png`), ...options});
}

export function keep(name, text) {
  writeFileSync(join(WORK, "screenshots", name), text);
}
