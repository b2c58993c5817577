// `zeptick serve` in Debian's headless chromium, driven by playwright-core from web/'s lockfile:
// rates appear and change, the correlation peak sits at the pair delay and moves by an input
// delay typed on the page, and Record/Stop leave the named file.
// Usage: node browser_test.mjs <build>/tools <artifact directory>
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { existsSync, mkdirSync, mkdtempSync, rmSync } from "node:fs";
import { createRequire } from "node:module";
import { tmpdir } from "node:os";
import path from "node:path";
import { createInterface } from "node:readline";
import { fileURLToPath } from "node:url";

const here = path.dirname(fileURLToPath(import.meta.url));
const require = createRequire(path.join(here, "../../web/package.json"));
const { chromium } = require("playwright-core");
const [tools, artifacts] = process.argv.slice(2);
const zeptick = path.join(tools, "zeptick");

function startServer(recordDir) {
  const child = spawn(zeptick, ["--emulator", "default", "serve", "--port", "0",
    "--record-dir", recordDir], { stdio: ["ignore", "pipe", "inherit"] });
  return new Promise((resolve, reject) => {
    child.on("exit", (code) => reject(new Error(`zeptick serve exited with ${code}`)));
    createInterface({ input: child.stdout }).once("line", (line) => {
      const url = line.match(/http:\/\/\S+?:\d+\//);
      if (url) resolve({ child, url: url[0] });
      else reject(new Error(`no address in ${line}`));
    });
  });
}

// Waits up to 8 s for the panel's peak to come within 30 ps of `want`.
async function expectPeak(page, want) {
  let peak = NaN;
  for (const end = Date.now() + 8000; Date.now() < end && !(Math.abs(peak - want) <= 30);) {
    await page.waitForTimeout(200);
    const text = await page.locator(".panel .peak").first().getAttribute("data-peak");
    peak = text ? Number(text) : NaN;
  }
  assert.ok(Math.abs(peak - want) <= 30, `peak at ${peak}, want ${want}`);
}

const recordDir = mkdtempSync(path.join(tmpdir(), "zeptick-web-"));
const { child, url } = await startServer(recordDir);
const browser = await chromium.launch({ executablePath: "/usr/bin/chromium", headless: true,
  args: ["--no-sandbox"] });
let passed = 0;
const check = async (name, body) => {
  await body();
  passed += 1;
  console.log(`ok ${passed} - ${name}`);
};
try {
  const config = await (await fetch(`${url}api/configuration`)).json();
  const pairs = config.emulator.devices[0].sources.find((s) => s.type === "pairs");
  const [a, b] = pairs.inputs;
  const pairDelay = pairs.delays_ps[1] - pairs.delays_ps[0];

  const page = await browser.newPage({ viewport: { width: 1280, height: 1100 } });
  const pageErrors = [];
  page.on("pageerror", (error) => pageErrors.push(error.message));
  await page.goto(url);

  await check("rates appear and change", async () => {
    const rate = page.locator(`#rates-now li[data-channel="${a}"]`);
    await rate.waitFor();
    const first = await rate.getAttribute("data-rate");
    await page.waitForFunction((ch) => Number(document.querySelector(
      `#rates-now li[data-channel="${ch}"]`)?.dataset.rate) > 0, a, { timeout: 5000 });
    await page.waitForFunction(([ch, before]) => document.querySelector(
      `#rates-now li[data-channel="${ch}"]`)?.dataset.rate !== before, [a, first],
      { timeout: 5000 });
    assert.equal(await page.locator("#connection").textContent(), "live");
  });

  await check("correlation peak sits at the pair delay", async () => {
    for (const [name, value] of Object.entries({ a, b, binwidth: "10ps", range: "10ns" })) {
      await page.fill(`#new-panel [name="${name}"]`, String(value));
    }
    await page.click('#new-panel button[type="submit"]');
    // Correlation bins (time on a) minus (time on b): b lags by the pair delay.
    await expectPeak(page, -pairDelay);
  });

  await check("an input delay typed on the page moves the peak by that amount", async () => {
    const moved = 1000;
    const field = page.locator(`#channels tr[data-channel="${b}"] [name="input_delay"]`);
    await field.fill(`${moved}`);
    await field.press("Enter");
    await page.waitForFunction(([ch, want]) => document.querySelector(
      `#channels tr[data-channel="${ch}"] [name="input_delay"]`).value === want, [b, String(moved)]);
    await expectPeak(page, -pairDelay - moved);
  });

  mkdirSync(artifacts, { recursive: true });
  await page.screenshot({ path: path.join(artifacts, "serve.png"), fullPage: true });

  await check("a refused setting is shown", async () => {
    const field = page.locator(`#channels tr[data-channel="${a}"] [name="dead_time"]`);
    await field.fill("-5ns");
    await field.press("Enter");
    await page.waitForFunction(() => document.querySelector("#message").textContent.includes("dead_time"));
  });

  await check("record and stop leave the named file", async () => {
    await page.fill("#record-name", "from-browser");
    await page.click("#record");
    await page.waitForFunction(() => document.querySelector("#record-status").textContent.startsWith("recording"));
    await page.waitForTimeout(500);
    await page.click("#stop");
    await page.waitForFunction(() => document.querySelector("#record-status").textContent.includes("saved"));
    assert.ok(existsSync(path.join(recordDir, "from-browser.ztbin")));
  });

  await check("the reports tab shows configuration and health", async () => {
    await page.click('nav button[data-tab="reports"]');
    await page.waitForFunction(() => document.querySelector("#health").textContent.includes("Serial"));
    assert.match(await page.locator("#configuration").textContent(), /"tagger"/);
  });
  assert.deepEqual(pageErrors, []);
} finally {
  await browser.close();
  child.removeAllListeners("exit");
  const stopped = new Promise((resolve) => child.on("exit", resolve));
  child.kill("SIGTERM");
  const code = await stopped;
  rmSync(recordDir, { recursive: true, force: true });
  assert.equal(code, 0, "zeptick serve must stop cleanly on SIGTERM");
}
console.log(`${passed} passed, 0 failed`);
