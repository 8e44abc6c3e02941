// Compares a picture grabbed from the video element with source frames decoded by ffmpeg, coarsely: the mean
// absolute difference of luma over the whole picture, 0 to 255.
//
//   node frame_diff.mjs GRAB.rgba WIDTH HEIGHT NEAR.rgba... -- FAR.rgba...
//
// All are raw RGBA pictures of the same size. NEAR are the frames the picture
// should be (the expected one and its neighbours, as a seek may land a frame off), FAR are frames half a GOP away,
// which tell how much the content moves. Passes (exit code 0) when the closest NEAR frame differs from the grab by
// less than 6 and by less than half of how much the closest FAR frame differs from that NEAR frame.
import fs from 'node:fs';

const args = process.argv.slice(2);
const split = args.indexOf('--');
if (args.length < 5 || split < 4 || split === args.length - 1) {
  console.error('usage: node frame_diff.mjs GRAB.rgba WIDTH HEIGHT NEAR.rgba... -- FAR.rgba...');
  process.exit(2);
}
const [grabFile, width, height] = [args[0], Number(args[1]), Number(args[2])];
const size = width * height;
// The luma of each pixel, computed alike for the browser's picture and ffmpeg's.
const read = (file) => {
  const rgba = fs.readFileSync(file);
  if (rgba.length !== size * 4) {
    console.error(`frame_diff.mjs: ${file} holds ${rgba.length} bytes, not ${width}x${height}x4`);
    process.exit(1);
  }
  const luma = new Float32Array(size);
  for (let i = 0; i < size; i++) luma[i] = 0.299 * rgba[4 * i] + 0.587 * rgba[4 * i + 1] + 0.114 * rgba[4 * i + 2];
  return luma;
};
const grab = read(grabFile);
const difference = (a, b) => {
  let sum = 0;
  for (let i = 0; i < size; i++) sum += Math.abs(a[i] - b[i]);
  return sum / size;
};
const near = args.slice(3, split).map((f) => ({ file: f, pixels: read(f) }));
const far = args.slice(split + 1).map((f) => ({ file: f, pixels: read(f) }));
for (const n of near) n.toGrab = difference(grab, n.pixels);
const best = near.reduce((a, b) => (b.toGrab < a.toGrab ? b : a));
const motion = Math.min(...far.map((f) => difference(best.pixels, f.pixels)));
console.log(`frame_diff.mjs: closest ${best.file}: ${best.toGrab.toFixed(2)}; ` +
            `near frames ${near.map((n) => n.toGrab.toFixed(2)).join(' ')}; frames half a GOP away differ by ${motion.toFixed(2)}`);
process.exit(best.toGrab < 6 && best.toGrab < motion / 2 ? 0 : 1);
