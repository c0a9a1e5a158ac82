// Opens a `kel view` page in Debian's headless Chromium and reports, as one
// JSON object on standard output, what the page showed:
//
//   node view_probe.mjs --url URL --frame N [--samples JSON] [--screenshot PATH] [--steps JSON]
//
// --samples is [[stream, x, y], ...]: the RGBA of those panel pixels.
// --steps is [[key, expected frame], ...]: each key is pressed and the page
// waited on until it is ready at the expected frame; the frame it settled on
// is reported either way.
// puppeteer-core comes from KEL_VIEW_NODE_MODULES (the build's npm packages).

import { mkdtempSync, rmSync } from 'node:fs';
import { createRequire } from 'node:module';
import { tmpdir } from 'node:os';
import { join, resolve } from 'node:path';
import { parseArgs } from 'node:util';

const require = createRequire(`${resolve(process.env.KEL_VIEW_NODE_MODULES ?? '.')}/`);
const puppeteer = require('puppeteer-core');

export const CHROMIUM_ARGS = [
  '--no-sandbox',
  '--use-angle=swiftshader',
  '--enable-unsafe-swiftshader',
  '--disable-background-networking',
  '--disable-component-update',
  '--disable-sync',
  '--no-first-run',
  '--disable-quic',
];

export async function launch() {
  const profile = mkdtempSync(join(tmpdir(), 'kel-view-chromium-'));
  const browser = await puppeteer.launch({
    executablePath: process.env.KEL_CHROMIUM ?? '/usr/bin/chromium',
    headless: true,
    args: [...CHROMIUM_ARGS, `--user-data-dir=${profile}`],
    defaultViewport: { width: 1280, height: 900 },
  });
  const close = async () => {
    await browser.close();
    rmSync(profile, { recursive: true, force: true });
  };
  return { browser, close };
}

// Resolves when <body> says the page is ready at `frame`; rejects after the
// timeout with the state it was in.
export async function waitReady(page, frame, timeout = 30000) {
  try {
    await page.waitForSelector(`body[data-state="ready"][data-frame="${frame}"]`, { timeout });
  } catch {
    const state = await page.evaluate(() => ({
      state: document.body.dataset.state,
      frame: document.body.dataset.frame,
      status: document.getElementById('status')?.textContent,
    }));
    throw new Error(`page not ready at frame ${frame}: ${JSON.stringify(state)}`);
  }
}

async function main() {
  const { values } = parseArgs({
    options: {
      url: { type: 'string' },
      frame: { type: 'string', default: '0' },
      samples: { type: 'string', default: '[]' },
      screenshot: { type: 'string' },
      steps: { type: 'string', default: '[]' },
    },
  });
  const url = new URL(values.url);
  url.searchParams.set('frame', values.frame);
  const report = { consoleErrors: [], failedRequests: [] };
  const { browser, close } = await launch();
  try {
    const page = await browser.newPage();
    page.on('console', (message) => {
      if (message.type() === 'error') report.consoleErrors.push(`${message.text()} (${message.location()?.url ?? ''})`);
    });
    page.on('pageerror', (error) => report.consoleErrors.push(String(error)));
    page.on('requestfailed', (request) => report.failedRequests.push(request.url()));
    await page.goto(url.href);
    await waitReady(page, values.frame);
    report.frame = await page.evaluate(() => document.body.dataset.frame);
    report.samples = await page.evaluate((samples) => {
      return samples.map(([stream, x, y]) => {
        const canvas = document.querySelector(`canvas.panel[data-stream="${stream}"]`);
        if (!canvas) return null;
        return [...canvas.getContext('2d').getImageData(x, y, 1, 1).data];
      });
    }, JSON.parse(values.samples));
    report.panels = await page.evaluate(() =>
      [...document.querySelectorAll('canvas.panel')].map((c) => ({
        stream: Number(c.dataset.stream),
        width: c.width,
        height: c.height,
      })),
    );
    report.scene = await page.evaluate(() => {
      const r = document.getElementById('scene').getBoundingClientRect();
      return { x: r.x, y: r.y, width: r.width, height: r.height };
    });
    if (values.screenshot) {
      await page.screenshot({ path: values.screenshot });
      report.screenshot = values.screenshot;
    }
    report.steps = [];
    for (const [key, expected] of JSON.parse(values.steps)) {
      await page.keyboard.press(key);
      let error = null;
      try {
        await waitReady(page, expected);
      } catch (e) {
        error = e.message;
      }
      report.steps.push({ key, frame: await page.evaluate(() => document.body.dataset.frame), error });
    }
  } catch (error) {
    report.error = error.message;
  } finally {
    await close();
  }
  process.stdout.write(`${JSON.stringify(report)}\n`);
  process.exitCode = report.error ? 1 : 0;
}

if (import.meta.url === `file://${process.argv[1]}`) await main();
