// Reads a fragmented MP4 file (init segment followed by media segments) with mp4box.js, an MP4 reader independent
// of ours, and prints what it makes of the first track's samples, in decode order:
//
//   node sync_samples.mjs FILE
//   -> {"samples":150,"sync":[0,25,50],"lastDuration":400000,"timescale":10000000}
//
// "sync" lists the indices of the samples that mp4box.js takes for sync samples. Exit code 1 when the file
// cannot be read.
import fs from 'node:fs';
import { createFile, MP4BoxBuffer } from 'mp4box';

const [fileName] = process.argv.slice(2);
if (!fileName) {
  console.error('usage: node sync_samples.mjs FILE');
  process.exit(2);
}
const data = fs.readFileSync(fileName);
const file = createFile();
let failure = null;
file.onError = (module, message) => { failure = `${module}: ${message}`; };
file.appendBuffer(MP4BoxBuffer.fromArrayBuffer(data.buffer.slice(data.byteOffset, data.byteOffset + data.byteLength), 0));
file.flush();
const trak = file.moov?.traks?.[0];
if (failure || !trak || !trak.samples?.length) {
  console.error(`sync_samples.mjs: ${fileName}: ${failure ?? 'no samples in the first track'}`);
  process.exit(1);
}
const samples = trak.samples;
console.log(JSON.stringify({
  samples: samples.length,
  sync: samples.flatMap((s, i) => (s.is_sync ? [i] : [])),
  lastDuration: samples.at(-1).duration,
  timescale: trak.mdia.mdhd.timescale,
}));
