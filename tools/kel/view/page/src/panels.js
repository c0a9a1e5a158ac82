// Camera panels: one per stream with a texture, a 2D canvas exactly the
// texture's size holding its stored RGBA bytes (CSS scales it to fit; the
// pixels are never resampled). A stream without an atom at the frame keeps
// its last picture, greyed out.

// The picture of an atom: its first colour texture that is not the atom's
// thumbnail, or the thumbnail when that is all it has.
export function primaryTexture(atom) {
  const textures = atom.layers.filter((l) => l.type === 'TextureRGBA' && l.pixels);
  return textures.find((t) => !/THUMBNAIL/i.test(t.purpose ?? '')) ?? textures[0] ?? null;
}

export class Panels {
  constructor(container) {
    this.container = container;
    this.panels = new Map();
  }

  clear() {
    this.container.replaceChildren();
    this.panels.clear();
  }

  panel(streamId, name) {
    let panel = this.panels.get(streamId);
    if (!panel) {
      const figure = document.createElement('figure');
      figure.className = 'panel';
      const caption = document.createElement('figcaption');
      const canvas = document.createElement('canvas');
      canvas.className = 'panel';
      canvas.dataset.stream = String(streamId);
      canvas.width = 0;
      canvas.height = 0;
      const message = document.createElement('div');
      message.className = 'message';
      const frame = document.createElement('div');
      frame.className = 'picture';
      frame.append(canvas, message);
      figure.append(caption, frame);
      // Panels stay in stream order whatever order their atoms arrive in.
      const after = [...this.panels.keys()].filter((id) => id > streamId).sort((a, b) => a - b)[0];
      this.container.insertBefore(figure, after === undefined ? null : this.panels.get(after).figure);
      panel = { figure, caption, canvas, message, ctx: canvas.getContext('2d') };
      this.panels.set(streamId, panel);
    }
    panel.name = name;
    return panel;
  }

  // Shows one frame: `atoms` maps stream id to its decoded message (or an
  // Error); streams of the time line missing from it hold no atom here.
  show(streams, atoms) {
    for (const stream of streams) {
      const atom = atoms.get(stream.id);
      const texture = atom && !(atom instanceof Error) && !atom.damaged ? primaryTexture(atom) : null;
      const broken = atom instanceof Error || !!atom?.damaged;
      // A stream gets its panel with its first picture, or with the first
      // atom that could not be shown, so that the damage is seen.
      if (!texture && !broken && !this.panels.has(stream.id)) continue;
      const panel = this.panel(stream.id, stream.name);
      if (!panel.caption.textContent) panel.caption.textContent = `${stream.id} · ${stream.name ?? ''}`;
      let note = '';
      if (texture) {
        const { width, height } = texture;
        if (panel.canvas.width !== width || panel.canvas.height !== height) {
          panel.canvas.width = width;
          panel.canvas.height = height;
        }
        panel.ctx.putImageData(new ImageData(texture.pixels, width, height), 0, 0);
        panel.caption.textContent = `${stream.id} · ${stream.name ?? ''} · ${width}×${height}`;
      } else if (atom instanceof Error) {
        note = `not loaded: ${atom.message}`;
      } else if (atom?.damaged) {
        note = `damaged atom${atom.reason ? `: ${atom.reason}` : ''}`;
      } else if (atom) {
        note = 'no picture in this atom';
      } else {
        note = 'no atom at this frame';
      }
      panel.figure.classList.toggle('stale', note !== '');
      panel.figure.classList.toggle('damaged', broken);
      panel.message.textContent = note;
    }
  }
}
