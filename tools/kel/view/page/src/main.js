// The page of `kel view`: wires the takes, the time line, the camera panels,
// the 3D view and the facts to one frame position, with keys and playback.
//
// `<body data-state>` is "loading" while a frame is being fetched or drawn,
// "ready" (with `data-frame` set to the position) once everything of the
// frame on screen is drawn, and "error" when the take cannot be shown.

import { FrameLoader, fetchIndex, fetchSummary, fetchTakes } from './api.js';
import { renderAtoms, renderSummary } from './facts.js';
import { Panels } from './panels.js';
import { Scene3D } from './scene3d.js';
import { Timeline } from './timeline.js';

const $ = (id) => document.getElementById(id);

function upperBound(values, value) {
  let lo = 0;
  let hi = values.length;
  while (lo < hi) {
    const mid = (lo + hi) >>> 1;
    if (values[mid] <= value) lo = mid + 1;
    else hi = mid;
  }
  return lo;
}

function formatStamp(us) {
  return new Date(us / 1000).toISOString().replace('T', ' ').replace('Z', ' UTC');
}

class Viewer {
  constructor() {
    this.takes = [];
    this.take = null;
    this.index = null;
    this.position = 0;
    this.playing = false;
    this.loader = new FrameLoader(
      (position, frame) => this.draw(position, frame),
      (position, error) => this.fail(`frame ${position}: ${error.message}`),
    );
    this.timeline = new Timeline($('timeline'), (position) => {
      this.pause();
      this.go(position);
    });
    this.panels = new Panels($('panels'));
    this.scene = new Scene3D($('view3d'));

    $('play').addEventListener('click', () => (this.playing ? this.pause() : this.play()));
    $('take').addEventListener('change', (event) => this.openTake(Number(event.target.value), 0));
    document.addEventListener('keydown', (event) => this.key(event));
  }

  setState(state) {
    document.body.dataset.state = state;
  }

  fail(message) {
    this.pause();
    $('status').textContent = message;
    this.setState('error');
  }

  async start() {
    this.setState('loading');
    const params = new URLSearchParams(location.search);
    try {
      this.takes = await fetchTakes();
    } catch (error) {
      this.fail(`cannot list the takes: ${error.message}`);
      return;
    }
    const select = $('take');
    select.replaceChildren(
      ...this.takes.map((t) => {
        const option = document.createElement('option');
        option.value = String(t.take);
        option.textContent = t.error ? `${t.name} (does not open)` : t.name;
        return option;
      }),
    );
    select.hidden = this.takes.length < 2;
    const wanted = Number(params.get('take') ?? this.takes[0]?.take ?? 0);
    const take = this.takes.find((t) => t.take === wanted)?.take ?? this.takes[0]?.take;
    if (take === undefined) {
      this.fail('no takes');
      return;
    }
    await this.openTake(take, Number.parseInt(params.get('frame') ?? '0', 10) || 0);
  }

  async openTake(take, position) {
    this.pause();
    this.setState('loading');
    const info = this.takes.find((t) => t.take === take);
    $('take').value = String(take);
    document.title = `${info.name} – kel view`;
    this.take = take;
    this.index = null;
    this.panels.clear();
    this.scene.clear();
    $('atoms').replaceChildren();
    this.summaryAsked = false;
    renderSummary($('summary'), info, null, null);
    if (info.error) {
      this.fail(`${info.name}: ${info.error}`);
      return;
    }
    let index;
    try {
      index = await fetchIndex(take);
    } catch (error) {
      this.fail(`cannot read the time line of ${info.name}: ${error.message}`);
      return;
    }
    if (this.take !== take) return;
    this.index = index;
    // Playback follows the time stamps; a stamp lower than an earlier one
    // plays at the time of the latest before it.
    this.clock = new Float64Array(index.frames);
    index.timeStamps.forEach((t, i) => (this.clock[i] = i > 0 ? Math.max(t, this.clock[i - 1]) : t));
    renderSummary($('summary'), info, index, null);
    this.loader.setTake(take, index);
    this.timeline.setIndex(index);
    if (index.frames === 0) {
      $('readout').textContent = 'no frames';
      this.setState('ready');
      return;
    }
    this.go(position);
  }

  go(position) {
    if (!this.index || this.index.frames === 0) return;
    const clamped = Math.min(this.index.frames - 1, Math.max(0, Math.round(position)));
    this.position = clamped;
    this.timeline.setPosition(clamped);
    this.setState('loading');
    this.loader.request(clamped);
  }

  draw(position, frame) {
    const { streams } = this.index;
    this.panels.show(streams, frame.atoms);
    this.scene.show(streams, frame.atoms);
    renderAtoms($('atoms'), streams, frame.atoms);
    for (const [stream, atom] of frame.atoms) {
      if (atom.damaged) this.timeline.markDamaged(stream, position);
    }
    const failed = [...frame.atoms.values()].find((atom) => atom instanceof Error);
    $('status').textContent = failed ? `some atoms did not load: ${failed.message}` : '';
    this.showReadout(position);
    if (position === this.position) {
      document.body.dataset.frame = String(position);
      this.setState('ready');
    }
    if (!this.summaryAsked) {
      this.summaryAsked = true;
      this.showSummary(this.take);
    }
  }

  async showSummary(take) {
    let summary;
    try {
      summary = await fetchSummary(take);
    } catch (error) {
      summary = error;
    }
    if (this.take === take) renderSummary($('summary'), this.takes.find((t) => t.take === take), this.index, summary);
  }

  showReadout(position) {
    const { frames, frameNumbers, timeStamps } = this.index;
    const seconds = (timeStamps[position] - timeStamps[0]) / 1e6;
    $('readout').textContent =
      `position ${position} / ${frames - 1} · frame ${frameNumbers[position]} · ` +
      `${seconds.toFixed(3)} s · ${formatStamp(timeStamps[position])}`;
  }

  step(delta) {
    this.pause();
    this.go(this.position + delta);
  }

  key(event) {
    if (event.target instanceof HTMLSelectElement || event.target instanceof HTMLInputElement) return;
    if (event.altKey || event.ctrlKey || event.metaKey) return;
    const last = (this.index?.frames ?? 1) - 1;
    switch (event.key) {
      case ' ':
        if (this.playing) this.pause();
        else this.play();
        break;
      case 'ArrowLeft':
        this.step(-1);
        break;
      case 'ArrowRight':
        this.step(1);
        break;
      case 'PageUp':
        this.step(-10);
        break;
      case 'PageDown':
        this.step(10);
        break;
      case 'Home':
        this.step(-this.position);
        break;
      case 'End':
        this.step(last - this.position);
        break;
      default:
        return;
    }
    event.preventDefault();
  }

  // Plays at the recorded rate: each animation frame shows the position
  // whose time stamp the playback clock has reached. When drawing falls
  // behind, the positions passed meanwhile are skipped rather than queued.
  play() {
    if (!this.index || this.index.frames < 2 || this.playing) return;
    if (this.position >= this.index.frames - 1) this.go(0);
    this.playing = true;
    $('play').textContent = 'Pause';
    const startWall = performance.now();
    const startStamp = this.clock[this.position];
    const tick = (now) => {
      if (!this.playing) return;
      const target = startStamp + (now - startWall) * 1000;
      const position = Math.max(0, upperBound(this.clock, target) - 1);
      if (position >= this.index.frames - 1) {
        this.go(position);
        this.pause();
        return;
      }
      if (position !== this.position && !this.loader.busy) this.go(position);
      requestAnimationFrame(tick);
    };
    requestAnimationFrame(tick);
  }

  pause() {
    this.playing = false;
    $('play').textContent = 'Play';
  }
}

new Viewer().start();
