// The 3D view: every stream's mesh, textured with the same atom's picture, and
// every camera as a frustum from its pose and intrinsics, under orbit
// controls. Drawn on demand: when a frame arrives, the view moves or the
// canvas changes size; there is no render loop.

import * as THREE from 'three';
import { OrbitControls } from 'three/addons/controls/OrbitControls.js';
import { primaryTexture } from './panels.js';

// How far in front of its camera a frustum's far rectangle is drawn, metres.
const FRUSTUM_DEPTH = 0.3;

const STREAM_COLOURS = [0x4fc3f7, 0xffb74d, 0x81c784, 0xe57373, 0xba68c8, 0xfff176, 0x4db6ac, 0xf06292];

export class Scene3D {
  constructor(container) {
    this.container = container;
    this.objects = new Map();
    this.framed = false;
    try {
      this.renderer = new THREE.WebGLRenderer({ antialias: true });
    } catch (error) {
      container.classList.add('unavailable');
      container.textContent = `3D view unavailable: ${error.message}`;
      return;
    }
    this.renderer.setPixelRatio(window.devicePixelRatio || 1);
    this.renderer.domElement.id = 'scene';
    container.append(this.renderer.domElement);

    this.scene = new THREE.Scene();
    this.scene.background = new THREE.Color(0x15171b);
    const grid = new THREE.GridHelper(10, 20, 0x3a4049, 0x262a31);
    this.scene.add(grid);

    this.camera = new THREE.PerspectiveCamera(45, 1, 0.01, 1000);
    this.camera.position.set(3, 3, 4);
    this.controls = new OrbitControls(this.camera, this.renderer.domElement);
    this.controls.addEventListener('change', () => this.render());
    this.renderer.domElement.addEventListener('dblclick', () => this.frame());

    new ResizeObserver(() => this.resize()).observe(container);
    this.resize();
  }

  get available() {
    return !!this.renderer;
  }

  resize() {
    const width = Math.max(1, this.container.clientWidth);
    const height = Math.max(1, this.container.clientHeight);
    this.renderer.setSize(width, height, false);
    this.camera.aspect = width / height;
    this.camera.updateProjectionMatrix();
    this.render();
  }

  render() {
    this.renderer.render(this.scene, this.camera);
  }

  // Forgets the streams of the previous take; the next frame shown sets the
  // view up again.
  clear() {
    for (const object of this.objects.values()) {
      for (const item of [object.mesh, object.frustum]) {
        this.scene.remove(item);
        item.geometry.dispose();
        item.material.dispose();
      }
      object.texture?.dispose();
    }
    this.objects.clear();
    this.framed = false;
  }

  streamObjects(streamId) {
    let object = this.objects.get(streamId);
    if (!object) {
      const colour = STREAM_COLOURS[streamId % STREAM_COLOURS.length];
      const mesh = new THREE.Mesh(
        new THREE.BufferGeometry(),
        new THREE.MeshBasicMaterial({ color: 0xffffff, side: THREE.DoubleSide }),
      );
      mesh.visible = false;
      const frustum = new THREE.LineSegments(new THREE.BufferGeometry(), new THREE.LineBasicMaterial({ color: colour }));
      frustum.visible = false;
      this.scene.add(mesh, frustum);
      object = { mesh, frustum, texture: null, colour };
      this.objects.set(streamId, object);
    }
    return object;
  }

  // Shows one frame (`atoms` as for the panels) and draws it.
  show(streams, atoms) {
    if (!this.available) return;
    for (const stream of streams) {
      const atom = atoms.get(stream.id);
      const current = atom && !(atom instanceof Error) && !atom.damaged;
      if (!current) {
        // Keep what the stream showed last, greyed out.
        const object = this.objects.get(stream.id);
        if (object) this.setStale(object, true);
        continue;
      }
      const object = this.streamObjects(stream.id);
      this.setStale(object, false);
      const mesh = atom.layers.find((l) => l.type === 'Mesh' && l.vertices);
      const camera = atom.layers.find((l) => l.type === 'CameraParams');
      this.updateMesh(object, mesh, primaryTexture(atom));
      this.updateFrustum(object, camera);
    }
    if (!this.framed && this.objects.size > 0) {
      this.frame();
      this.framed = true;
    }
    this.render();
  }

  setStale(object, stale) {
    object.mesh.material.color.set(stale ? 0x666666 : 0xffffff);
    object.frustum.material.color.set(stale ? 0x555555 : object.colour);
  }

  updateMesh(object, layer, texture) {
    const { mesh } = object;
    mesh.visible = !!layer;
    if (!layer) return;
    const geometry = new THREE.BufferGeometry();
    geometry.setAttribute('position', new THREE.BufferAttribute(layer.vertices, 3));
    if (layer.indices?.length) geometry.setIndex(new THREE.BufferAttribute(layer.indices, 1));
    const vertexCount = layer.vertices.length / 3;
    const textured = texture && layer.texCoords?.length === vertexCount * 2;
    if (textured) geometry.setAttribute('uv', new THREE.BufferAttribute(layer.texCoords, 2));
    geometry.computeBoundingSphere();
    mesh.geometry.dispose();
    mesh.geometry = geometry;

    if (!textured) {
      mesh.material.map = null;
      mesh.material.wireframe = true;
      mesh.material.needsUpdate = true;
      return;
    }
    // Texture rows are stored top to bottom and a texture coordinate v = 0
    // names the top row, so the bytes go up unflipped: WebGL puts the first
    // row at t = 0, which is where v = 0 samples.
    const pixels = new Uint8Array(texture.pixels.buffer, texture.pixels.byteOffset, texture.pixels.length);
    let map = object.texture;
    if (!map || map.image.width !== texture.width || map.image.height !== texture.height) {
      map?.dispose();
      map = new THREE.DataTexture(pixels, texture.width, texture.height, THREE.RGBAFormat, THREE.UnsignedByteType);
      map.flipY = false;
      map.colorSpace = THREE.SRGBColorSpace;
      map.generateMipmaps = false;
      map.minFilter = THREE.LinearFilter;
      map.magFilter = THREE.LinearFilter;
      object.texture = map;
    } else {
      map.image.data = pixels;
    }
    map.needsUpdate = true;
    mesh.material.wireframe = false;
    if (mesh.material.map !== map) {
      mesh.material.map = map;
      mesh.material.needsUpdate = true;
    }
  }

  // The frustum of a camera: its centre joined to the corners of the image
  // unprojected to FRUSTUM_DEPTH (camera coordinates x right, y down, z
  // forward), those corners joined, and a small triangle over the image's
  // top edge; all moved into the world by the row-major camera-to-world pose.
  updateFrustum(object, params) {
    const { frustum } = object;
    frustum.visible = !!params?.pose && params.fx > 0 && params.fy > 0;
    if (!frustum.visible) return;
    const { width: w, height: h, fx, fy, cx, cy, pose } = params;
    const d = FRUSTUM_DEPTH;
    const at = (u, v) => [((u - cx) / fx) * d, ((v - cy) / fy) * d, d];
    const centre = [0, 0, 0];
    const corners = [at(0, 0), at(w, 0), at(w, h), at(0, h)];
    const top = at(w / 2, -0.15 * h);
    const segments = [];
    for (let i = 0; i < 4; i++) segments.push(centre, corners[i], corners[i], corners[(i + 1) % 4]);
    segments.push(corners[0], top, top, corners[1]);
    const positions = new Float32Array(segments.length * 3);
    segments.forEach(([x, y, z], i) => {
      for (let r = 0; r < 3; r++) {
        positions[i * 3 + r] = pose[r * 4] * x + pose[r * 4 + 1] * y + pose[r * 4 + 2] * z + pose[r * 4 + 3];
      }
    });
    const geometry = new THREE.BufferGeometry();
    geometry.setAttribute('position', new THREE.BufferAttribute(positions, 3));
    geometry.computeBoundingSphere();
    frustum.geometry.dispose();
    frustum.geometry = geometry;
  }

  // Points the view at the centre of the meshes (or of everything when there
  // are none) from far enough away to see every mesh and camera.
  frame() {
    const shown = [];
    for (const { mesh, frustum } of this.objects.values()) {
      if (mesh.visible) shown.push(mesh);
      if (frustum.visible) shown.push(frustum);
    }
    if (shown.length === 0) return;
    const meshes = new THREE.Box3();
    const everything = new THREE.Box3();
    for (const item of shown) {
      everything.expandByObject(item);
      if (item.isMesh) meshes.expandByObject(item);
    }
    const target = (meshes.isEmpty() ? everything : meshes).getCenter(new THREE.Vector3());
    let radius = 0.1;
    for (const item of shown) {
      const sphere = item.geometry.boundingSphere;
      radius = Math.max(radius, sphere.center.distanceTo(target) + sphere.radius);
    }
    const halfFov = THREE.MathUtils.degToRad(this.camera.fov / 2);
    const fit = Math.min(halfFov, Math.atan(Math.tan(halfFov) * this.camera.aspect));
    const distance = radius / Math.sin(fit);
    const direction = new THREE.Vector3(0.55, 0.75, 1).normalize();
    this.camera.position.copy(target).addScaledVector(direction, distance);
    this.camera.near = distance / 200;
    this.camera.far = distance * 20;
    this.camera.updateProjectionMatrix();
    this.controls.target.copy(target);
    this.controls.update();
    this.render();
  }
}
