// Talking to the `kel view` server: JSON for the takes and their time lines,
// binary atom messages for the frames, and a small cache of decoded frames.

const token = new URLSearchParams(location.search).get('token') ?? '';

export class HttpError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

async function get(path, signal) {
  const response = await fetch(path, { headers: { 'X-Kel-Token': token }, signal, cache: 'no-store' });
  if (!response.ok) {
    let message = `${response.status} ${response.statusText}`;
    try {
      message = (await response.json()).error ?? message;
    } catch {
      // Not a JSON error body: the status line says enough.
    }
    throw new HttpError(response.status, message);
  }
  return response;
}

export async function fetchTakes() {
  return (await (await get('/api/takes')).json()).takes;
}

// The runtime's summary of the file; it reads every atom's layer table, so
// the page asks for it only after the first frame is on screen.
export async function fetchSummary(take) {
  return (await get(`/api/summary?take=${take}`)).json();
}

export async function fetchIndex(take) {
  return (await get(`/api/index?take=${take}`)).json();
}

// An atom message is a little-endian u32 header length, the JSON header, zero
// padding to a multiple of 16 and then the blobs, each at a 16-byte aligned
// offset into the blob section. The arrays returned are views into the
// message's buffer: nothing is copied.
export function decodeAtomMessage(buffer) {
  const view = new DataView(buffer);
  const headerLength = view.getUint32(0, true);
  const header = JSON.parse(new TextDecoder().decode(new Uint8Array(buffer, 4, headerLength)));
  const blobStart = Math.ceil((4 + headerLength) / 16) * 16;
  const blob = (ref, Type) => {
    if (!ref) return null;
    const offset = blobStart + ref.offset;
    if (offset + ref.bytes > buffer.byteLength || ref.bytes % Type.BYTES_PER_ELEMENT !== 0) {
      throw new Error(`atom message of stream ${header.stream}: a blob lies outside the message`);
    }
    return new Type(buffer, offset, ref.bytes / Type.BYTES_PER_ELEMENT);
  };
  const layers = (header.layers ?? []).map((layer) => {
    switch (layer.type) {
      case 'TextureRGBA':
        return { ...layer, pixels: blob(layer.pixels, Uint8ClampedArray) };
      case 'Mesh':
        return {
          ...layer,
          vertices: blob(layer.vertices, Float32Array),
          indices: blob(layer.indices, Uint32Array),
          texCoords: blob(layer.texCoords, Float32Array),
        };
      default:
        return layer;
    }
  });
  return { ...header, layers, bytes: buffer.byteLength };
}

export async function fetchAtom(take, stream, position, signal) {
  const response = await get(`/api/atom?take=${take}&stream=${stream}&frame=${position}`, signal);
  return decodeAtomMessage(await response.arrayBuffer());
}

// The decoded messages of the most recently drawn frames, least recently used
// first in the map's order. Bounded by a number of frames and by bytes, so
// that a take of large pictures does not hold dozens of them.
export class FrameCache {
  constructor(maxFrames = 32, maxBytes = 256 * 1024 * 1024) {
    this.maxFrames = maxFrames;
    this.maxBytes = maxBytes;
    this.frames = new Map();
    this.bytes = 0;
  }

  get(key) {
    const frame = this.frames.get(key);
    if (frame) {
      this.frames.delete(key);
      this.frames.set(key, frame);
    }
    return frame;
  }

  put(key, frame) {
    if (this.frames.has(key)) return;
    this.frames.set(key, frame);
    this.bytes += frame.bytes;
    for (const [oldest, old] of this.frames) {
      if (this.frames.size <= this.maxFrames && this.bytes <= this.maxBytes) break;
      if (oldest === key) break;
      this.frames.delete(oldest);
      this.bytes -= old.bytes;
    }
  }

  clear() {
    this.frames.clear();
    this.bytes = 0;
  }
}

// Loads whole frames (the atoms of every stream holding the position, fetched
// in parallel) with at most one frame in flight. A request made while one is
// loading replaces any earlier waiting request, so fast scrubbing never queues
// fetches: the frame in flight is finished and shown, then the latest wanted.
export class FrameLoader {
  constructor(onFrame, onError) {
    this.onFrame = onFrame;
    this.onError = onError;
    this.cache = new FrameCache();
    this.take = null;
    this.wanted = null;
    this.busy = false;
    this.generation = 0;
  }

  setTake(take, index) {
    this.take = take;
    this.index = index;
    this.wanted = null;
    this.generation++;
    this.cache.clear();
  }

  request(position) {
    this.wanted = position;
    if (!this.busy) this.pump();
  }

  async pump() {
    this.busy = true;
    while (this.wanted !== null) {
      const position = this.wanted;
      const generation = this.generation;
      this.wanted = null;
      try {
        const frame = await this.load(position);
        if (generation === this.generation) await this.onFrame(position, frame);
      } catch (error) {
        if (generation === this.generation) this.onError(position, error);
      }
    }
    this.busy = false;
  }

  // Resolves to {position, atoms: Map(stream id -> message or Error), bytes};
  // streams that do not hold the position have no entry.
  async load(position) {
    const key = `${this.take}:${position}`;
    const cached = this.cache.get(key);
    if (cached) return cached;
    const holders = this.index.streams.filter((s) => holds(s, position));
    const results = await Promise.all(
      holders.map((s) =>
        fetchAtom(this.take, s.id, position).catch((error) => (error instanceof HttpError ? error : Promise.reject(error))),
      ),
    );
    const atoms = new Map();
    let bytes = 0;
    holders.forEach((s, i) => {
      atoms.set(s.id, results[i]);
      bytes += results[i].bytes ?? 0;
    });
    const frame = { position, atoms, bytes };
    // A failed request is worth asking again next time; damaged atoms are
    // answers like any other.
    if (!results.some((r) => r instanceof Error)) this.cache.put(key, frame);
    return frame;
  }
}

// Whether a stream of the time line holds an atom at the position (its
// positions are ascending).
export function holds(stream, position) {
  const positions = stream.positions;
  let lo = 0;
  let hi = positions.length;
  while (lo < hi) {
    const mid = (lo + hi) >>> 1;
    if (positions[mid] < position) lo = mid + 1;
    else hi = mid;
  }
  return lo < positions.length && positions[lo] === position;
}
