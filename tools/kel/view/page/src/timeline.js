// The time line: one row per stream over the take's frame positions, drawn on
// a canvas per pixel column (a take of 100,000 atoms costs no more to draw
// than its width), with the frame on screen as a cursor. Click or drag to
// scrub.

const LABEL_WIDTH = 110;
const RULER_HEIGHT = 18;

const HELD = 1;
const GAP = 2;
const DAMAGED = 4;

const COLOURS = {
  background: '#1b1e23',
  row: '#262a31',
  [HELD]: '#5b7da8',
  [GAP]: '#e03c31',
  [DAMAGED]: '#ff9a1f',
  text: '#aeb6c2',
  cursor: '#ffffff',
};

function lowerBound(values, value) {
  let lo = 0;
  let hi = values.length;
  while (lo < hi) {
    const mid = (lo + hi) >>> 1;
    if (values[mid] < value) lo = mid + 1;
    else hi = mid;
  }
  return lo;
}

export class Timeline {
  constructor(canvas, onScrub) {
    this.canvas = canvas;
    this.onScrub = onScrub;
    this.index = null;
    this.position = 0;
    this.damaged = new Map();
    this.base = document.createElement('canvas');
    new ResizeObserver(() => this.layout()).observe(canvas);
    canvas.addEventListener('pointerdown', (event) => {
      if (!this.index || event.button !== 0) return;
      canvas.setPointerCapture(event.pointerId);
      this.scrubTo(event);
    });
    canvas.addEventListener('pointermove', (event) => {
      if (this.index && canvas.hasPointerCapture(event.pointerId)) this.scrubTo(event);
    });
  }

  setIndex(index) {
    this.index = index;
    this.damaged = new Map(index.streams.map((s) => [s.id, new Set(s.damaged ?? [])]));
    this.layout();
  }

  // Marks an atom the page found damaged while fetching.
  markDamaged(streamId, position) {
    const set = this.damaged.get(streamId);
    if (!set || set.has(position)) return;
    set.add(position);
    this.drawBase();
    this.draw();
  }

  setPosition(position) {
    this.position = position;
    this.draw();
  }

  rowHeight() {
    const streams = Math.max(this.index?.streams.length ?? 1, 1);
    return Math.max(4, Math.min(16, Math.floor(192 / streams)));
  }

  layout() {
    const rows = this.index?.streams.length ?? 1;
    const height = RULER_HEIGHT + rows * this.rowHeight() + 2;
    this.canvas.style.height = `${height}px`;
    const dpr = window.devicePixelRatio || 1;
    const width = this.canvas.clientWidth;
    this.width = width;
    this.height = height;
    for (const c of [this.canvas, this.base]) {
      c.width = Math.max(1, Math.round(width * dpr));
      c.height = Math.round(height * dpr);
    }
    this.drawBase();
    this.draw();
  }

  columns() {
    return Math.max(1, Math.floor(this.width - LABEL_WIDTH));
  }

  positionAt(clientX) {
    const x = clientX - this.canvas.getBoundingClientRect().left - LABEL_WIDTH;
    const frames = this.index.frames;
    return Math.min(frames - 1, Math.max(0, Math.floor((x * frames) / this.columns())));
  }

  scrubTo(event) {
    this.onScrub(this.positionAt(event.clientX));
  }

  // Per stream, each column's state: whether any position in the column is
  // held, lies in a gap of the stream's time stamps, or is damaged. A
  // position spans the columns from its left edge to the next one's, at least
  // one, so a short take fills the width and a long one shares columns.
  columnStates(stream, columns, frames) {
    const states = new Uint8Array(columns);
    const mark = (first, last, bit) => {
      const from = Math.min(columns - 1, Math.floor((first * columns) / frames));
      const to = Math.max(from, Math.min(columns, Math.ceil(((last + 1) * columns) / frames)) - 1);
      for (let c = from; c <= to; c++) states[c] |= bit;
    };
    for (const p of stream.positions) mark(p, p, HELD);
    for (const gap of stream.gaps ?? []) {
      // A gap runs between two consecutive atoms of the stream: mark the
      // positions between them, or the later atom when the take has none.
      const i = lowerBound(stream.timeStamps, gap.from);
      if (i + 1 >= stream.positions.length) continue;
      const from = stream.positions[i];
      const to = stream.positions[i + 1];
      if (to - from > 1) mark(from + 1, to - 1, GAP);
      else mark(to, to, GAP);
    }
    for (const p of this.damaged.get(stream.id) ?? []) mark(p, p, DAMAGED);
    return states;
  }

  drawBase() {
    const ctx = this.base.getContext('2d');
    const dpr = window.devicePixelRatio || 1;
    ctx.setTransform(dpr, 0, 0, dpr, 0, 0);
    ctx.fillStyle = COLOURS.background;
    ctx.fillRect(0, 0, this.width, this.height);
    if (!this.index || this.index.frames === 0) return;
    const { frames, streams, timeStamps } = this.index;
    const columns = this.columns();
    const rowHeight = this.rowHeight();
    ctx.font = '11px system-ui, sans-serif';
    ctx.textBaseline = 'middle';

    // Ruler: seconds from the first frame.
    ctx.fillStyle = COLOURS.text;
    const seconds = (timeStamps[frames - 1] - timeStamps[0]) / 1e6;
    const ticks = Math.max(1, Math.floor(columns / 90));
    for (let t = 0; t <= ticks; t++) {
      const position = Math.min(frames - 1, Math.round((t * (frames - 1)) / ticks));
      const x = LABEL_WIDTH + ((position + 0.5) * columns) / frames;
      ctx.fillRect(x, RULER_HEIGHT - 5, 1, 5);
      const label = `${((timeStamps[position] - timeStamps[0]) / 1e6).toFixed(seconds < 10 ? 2 : 1)} s`;
      ctx.textAlign = t === 0 ? 'left' : t === ticks ? 'right' : 'center';
      ctx.fillText(label, x, RULER_HEIGHT / 2 - 1);
    }

    streams.forEach((stream, row) => {
      const y = RULER_HEIGHT + row * rowHeight;
      ctx.fillStyle = COLOURS.row;
      ctx.fillRect(LABEL_WIDTH, y, columns, rowHeight - 1);
      if (rowHeight >= 10) {
        ctx.fillStyle = COLOURS.text;
        ctx.textAlign = 'left';
        ctx.fillText(`${stream.id} ${stream.name ?? ''}`.slice(0, 16), 4, y + rowHeight / 2);
      }
      const states = this.columnStates(stream, columns, frames);
      // Runs of equal columns become one rectangle; damage outranks a gap,
      // a gap outranks a held atom.
      const colour = (s) => (s & DAMAGED ? COLOURS[DAMAGED] : s & GAP ? COLOURS[GAP] : s & HELD ? COLOURS[HELD] : null);
      let start = 0;
      for (let c = 1; c <= columns; c++) {
        if (c < columns && colour(states[c]) === colour(states[start])) continue;
        const fill = colour(states[start]);
        if (fill) {
          ctx.fillStyle = fill;
          ctx.fillRect(LABEL_WIDTH + start, y, c - start, rowHeight - 1);
        }
        start = c;
      }
    });
    // Where positions are a few pixels wide, a line between them.
    if (columns / frames >= 4) {
      ctx.fillStyle = COLOURS.background;
      for (let p = 1; p < frames; p++) {
        ctx.fillRect(LABEL_WIDTH + Math.floor((p * columns) / frames), RULER_HEIGHT, 1, streams.length * rowHeight);
      }
    }
  }

  draw() {
    const ctx = this.canvas.getContext('2d');
    ctx.setTransform(1, 0, 0, 1, 0, 0);
    ctx.drawImage(this.base, 0, 0);
    if (!this.index || this.index.frames === 0) return;
    const dpr = window.devicePixelRatio || 1;
    ctx.setTransform(dpr, 0, 0, dpr, 0, 0);
    const columns = this.columns();
    const frames = this.index.frames;
    const left = LABEL_WIDTH + (this.position * columns) / frames;
    const width = Math.max(1, columns / frames);
    ctx.fillStyle = 'rgba(255, 255, 255, 0.25)';
    ctx.fillRect(left, RULER_HEIGHT, width, this.height - RULER_HEIGHT);
    ctx.fillStyle = COLOURS.cursor;
    ctx.fillRect(Math.round(left + width / 2 - 0.5), 0, 1, this.height);
  }
}
