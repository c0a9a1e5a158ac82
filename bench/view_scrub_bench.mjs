// The browser half of view_scrub_bench.py: against a running `kel view`, in
// Debian's headless Chromium, measures
//
//   first: time from navigation start to the first `data-state="ready"`
//          (a new page each run);
//   scrub: frames per second drawn while stepping with the right arrow key
//          from position 0 through --frames positions (at most the take's), each step waiting for
//          the page to be ready at the next position (a new page each run,
//          so the page's own cache starts empty);
//   fetch: the baseline, frames per second of the same positions' atom
//          messages fetched by the page (every stream of a position in
//          parallel) and neither decoded nor drawn.
//
//   node bench/view_scrub_bench.mjs --url URL --frames N --runs R
//
// Prints one JSON object: {"first": [ms...], "scrub": [fps...], "fetch": [fps...]}.
// Steps are dispatched inside the page and timed there, so the figures hold
// no round trips of the browser's remote control.

import { parseArgs } from 'node:util';
import { launch, waitReady } from '../tests/tool/view_probe.mjs';

const { values } = parseArgs({
  options: {
    url: { type: 'string' },
    frames: { type: 'string', default: '60' },
    runs: { type: 'string', default: '3' },
  },
});

async function open(browser, position) {
  const page = await browser.newPage();
  await page.evaluateOnNewDocument(() => {
    new MutationObserver(() => {
      if (window.kelFirstReady === undefined && document.body?.dataset.state === 'ready') {
        window.kelFirstReady = performance.now();
      }
    }).observe(document, { attributes: true, subtree: true, attributeFilter: ['data-state'] });
  });
  const url = new URL(values.url);
  url.searchParams.set('frame', String(position));
  await page.goto(url.href);
  await waitReady(page, position, 120000);
  await page.evaluate(async () => {
    const headers = { 'X-Kel-Token': new URLSearchParams(location.search).get('token') };
    window.kelFrames = (await (await fetch('/api/takes', { headers })).json()).takes[0].frames;
  });
  return page;
}

function scrub(page, frames) {
  return page.evaluate(async (frames) => {
    const readyAt = (frame) =>
      new Promise((resolve) => {
        const ready = () => document.body.dataset.state === 'ready' && document.body.dataset.frame === String(frame);
        if (ready()) return resolve();
        const observer = new MutationObserver(() => {
          if (ready()) {
            observer.disconnect();
            resolve();
          }
        });
        observer.observe(document.body, { attributes: true });
      });
    const start = performance.now();
    for (let frame = 1; frame < frames; frame++) {
      document.dispatchEvent(new KeyboardEvent('keydown', { key: 'ArrowRight', bubbles: true }));
      await readyAt(frame);
    }
    return (frames - 1) / ((performance.now() - start) / 1000);
  }, frames);
}

function fetchRate(page, frames) {
  return page.evaluate(async (frames) => {
    const headers = { 'X-Kel-Token': new URLSearchParams(location.search).get('token') };
    const index = await (await fetch('/api/index?take=0', { headers })).json();
    const held = index.streams.map((s) => ({ id: s.id, positions: new Set(s.positions) }));
    const start = performance.now();
    for (let frame = 1; frame < frames; frame++) {
      await Promise.all(
        held
          .filter((s) => s.positions.has(frame))
          .map((s) =>
            fetch(`/api/atom?take=0&stream=${s.id}&frame=${frame}`, { headers }).then((r) => r.arrayBuffer()),
          ),
      );
    }
    return (frames - 1) / ((performance.now() - start) / 1000);
  }, frames);
}

const result = { first: [], scrub: [], fetch: [] };
const { browser, close } = await launch();
try {
  let frames = Number(values.frames);
  for (let run = 0; run < Number(values.runs); run++) {
    let page = await open(browser, 0);
    frames = Math.min(frames, await page.evaluate(() => window.kelFrames));
    result.first.push(await page.evaluate(() => window.kelFirstReady));
    result.scrub.push(await scrub(page, frames));
    await page.close();
    page = await open(browser, 0);
    result.fetch.push(await fetchRate(page, frames));
    await page.close();
  }
} finally {
  await close();
}
process.stdout.write(`${JSON.stringify(result)}\n`);
