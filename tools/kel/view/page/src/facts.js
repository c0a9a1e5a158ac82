// The facts beside the 3D view: the take's summary from the runtime and the
// stream-level information of the atoms on screen.

export function formatBytes(bytes) {
  if (!Number.isFinite(bytes)) return '–';
  const units = ['B', 'KiB', 'MiB', 'GiB', 'TiB'];
  let value = bytes;
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit++;
  }
  return `${value.toFixed(unit === 0 ? 0 : 1)} ${units[unit]}`;
}

function number(value, digits = 2) {
  return typeof value === 'number' ? String(Number(value.toFixed(digits))) : String(value ?? '–');
}

function element(tag, className, text) {
  const node = document.createElement(tag);
  if (className) node.className = className;
  if (text !== undefined) node.textContent = text;
  return node;
}

function table(rows) {
  const dl = element('dl');
  for (const [key, value, warn] of rows) {
    dl.append(element('dt', '', key), element('dd', warn ? 'warn' : '', value));
  }
  return dl;
}

function damageText(damage) {
  if (!damage) return ['unknown', false];
  const findings = [];
  if (damage.headerDamaged) findings.push('header damaged');
  if (damage.recovered) findings.push('recovered without index');
  if (damage.skippedRecords) findings.push(`${damage.skippedRecords} records skipped (${formatBytes(damage.skippedBytes)})`);
  if (damage.truncatedTailBytes) findings.push(`${formatBytes(damage.truncatedTailBytes)} truncated at the end`);
  if (damage.foreignRecords) findings.push(`${damage.foreignRecords} foreign records`);
  return findings.length ? [findings.join(', '), true] : ['none', false];
}

// The take: what its listing and time line say, and the runtime's summary
// once it has arrived (`summary` null until then, or an Error).
export function renderSummary(container, take, index, summary) {
  container.replaceChildren();
  container.append(element('h2', '', take.name));
  if (take.error) {
    container.append(element('p', 'warn', take.error));
    return;
  }
  const atoms = take.streams.reduce((n, st) => n + (st.atoms ?? 0), 0);
  const rows = [
    ['streams', String(take.streams.length)],
    ['frames', String(take.frames)],
    ['atoms', String(atoms)],
  ];
  if (index) {
    const { timeStamps, frames } = index;
    const seconds = frames > 0 ? (timeStamps[frames - 1] - timeStamps[0]) / 1e6 : 0;
    const dropped = index.streams.reduce((n, st) => n + (st.dropped ?? 0), 0);
    const damaged = index.streams.reduce((n, st) => n + (st.damaged?.length ?? 0), 0);
    rows.push(
      ['duration', `${number(seconds, 3)} s`],
      ['dropped frames', String(dropped), dropped > 0],
      ['damaged atoms', String(damaged), damaged > 0],
    );
  }
  if (summary instanceof Error) {
    rows.push(['summary', `not available: ${summary.message}`, true]);
  } else if (!summary) {
    rows.push(['summary', 'reading…']);
  } else {
    const [damage, damageWarn] = damageText(summary.damage);
    rows.push(
      ['file', formatBytes(summary.fileSize)],
      ['stored / original', `${formatBytes(summary.storedBlobBytes)} / ${formatBytes(summary.blobBytes)}`],
      ['closed', summary.closed ? 'yes' : 'no (not closed by its writer)', !summary.closed],
      ['damage', damage, damageWarn],
    );
    if (summary.created) rows.push(['created', new Date(summary.created / 1000).toISOString()]);
  }
  container.append(table(rows));
}

function cameraText(c) {
  return `${c.width}×${c.height}, f ${number(c.fx)} / ${number(c.fy)}, c ${number(c.cx)} / ${number(c.cy)}`;
}

// Per stream on screen: its stream information, camera and recording facts.
export function renderAtoms(container, streams, atoms) {
  container.replaceChildren();
  for (const stream of streams) {
    const atom = atoms.get(stream.id);
    const section = element('section', 'stream');
    section.append(element('h3', '', `${stream.id} · ${stream.name ?? ''}`));
    if (!atom) {
      section.append(element('p', 'muted', 'no atom at this frame'));
    } else if (atom instanceof Error) {
      section.append(element('p', 'warn', `not loaded: ${atom.message}`));
    } else if (atom.damaged) {
      section.append(element('p', 'warn', `damaged: ${atom.reason || 'unreadable'}`));
    } else {
      const rows = [['frame number', String(atom.frameNumber)]];
      for (const layer of atom.layers) {
        switch (layer.type) {
          case 'StreamInfo':
            rows.push(['stream', `${layer.name}, ${number(layer.frameRate)} fps, ${layer.frames} frames`]);
            break;
          case 'CameraParams':
            rows.push(['camera', cameraText(layer)]);
            if (layer.distortion) rows.push(['distortion', layer.distortion.map((k) => number(k, 4)).join(' ')]);
            if (layer.pose) rows.push(['position', [3, 7, 11].map((i) => number(layer.pose[i], 3)).join(' ')]);
            break;
          case 'RecordingInfo':
            for (const [key, value] of Object.entries(layer)) {
              if (key !== 'type' && key !== 'purpose' && value !== '') rows.push([key, String(value)]);
            }
            break;
          case 'StaticInfo':
            for (const [key, value] of Object.entries(layer.values ?? {})) rows.push([key, String(value)]);
            break;
          case 'TextureRGBA':
            rows.push([`texture (${layer.purpose ?? ''})`, `${layer.width}×${layer.height}`]);
            break;
          case 'Mesh':
            rows.push(['mesh', `${layer.vertices.length / 3} vertices, ${layer.indices.length / 3} triangles`]);
            break;
          case 'Binary':
            rows.push([`binary ${layer.name ?? ''}`, formatBytes(layer.bytes)]);
            break;
          default:
            rows.push([layer.type, layer.purpose ?? '']);
        }
      }
      section.append(table(rows));
    }
    container.append(section);
  }
}
