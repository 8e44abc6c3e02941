// Removes a share of the elementary-stream packets of an MPEG-TS file, as a lossy network would: each
// 188-byte packet of an elementary stream's PID is left out with the given probability, drawn from a seeded
// generator so that the damage is the same on every run. The program tables (PAT, the PMTs it names) stay.
//
//   node drop_ts_packets.mjs IN OUT SHARE SEED     prints how many packets were removed
import { readFileSync, writeFileSync } from "node:fs";

const [input, output, shareText, seedText] = process.argv.slice(2);
if (!output || !shareText || !seedText) {
  console.error("usage: node drop_ts_packets.mjs IN OUT SHARE SEED");
  process.exit(2);
}
const share = Number(shareText);
// The seed is spread over all 32 bits first: xorshift's first draws from a small state are small too.
let state = (Math.imul(Number(seedText) >>> 0, 2654435761) ^ 0x9e3779b9) >>> 0 || 1;
const next = () => {  // xorshift32: small, seeded, the same everywhere
  state ^= state << 13; state >>>= 0;
  state ^= state >>> 17;
  state ^= state << 5; state >>>= 0;
  return state / 4294967296;
};
for (let i = 0; i < 8; i++) next();
const data = readFileSync(input);
if (data.length % 188 !== 0 || data[0] !== 0x47) {
  console.error(`drop_ts_packets: ${input} is not a stream of 188-byte transport packets`);
  process.exit(1);
}
// The PMT PIDs, from the first PAT section: program number and PID pairs after the 8-byte section header.
const tables = new Set([0, 0x1fff]);
for (let at = 0; at < data.length; at += 188) {
  const pid = ((data[at + 1] & 0x1f) << 8) | data[at + 2];
  if (pid !== 0 || !(data[at + 1] & 0x40)) continue;
  let p = at + 4 + ((data[at + 3] & 0x20) ? 1 + data[at + 4] : 0);  // past the adaptation field
  p += 1 + data[p];  // pointer field
  const sectionEnd = p + 3 + (((data[p + 1] & 0x0f) << 8) | data[p + 2]) - 4;  // less the CRC
  for (let q = p + 8; q + 4 <= sectionEnd; q += 4) tables.add(((data[q + 2] & 0x1f) << 8) | data[q + 3]);
  break;
}
const kept = [];
let removed = 0;
for (let at = 0; at < data.length; at += 188) {
  const pid = ((data[at + 1] & 0x1f) << 8) | data[at + 2];
  if (pid >= 0x20 && !tables.has(pid) && next() < share) { removed++; continue; }
  kept.push(data.subarray(at, at + 188));
}
writeFileSync(output, Buffer.concat(kept));
console.log(removed);
