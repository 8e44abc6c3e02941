// Plays a packaged presentation with dash.js (shaka-player, hls.js) in headless Chromium and checks that it really plays.
//
//   node play.mjs [--format dash|smooth|hls] [--player dashjs|shaka|hlsjs] [--clearkey KID:KEY[,KID:KEY...]]
//                 [--min-time SECONDS] [--timeout SECONDS] [--seek SECONDS --grab FILE] [--switch-level] [--events FILE]
//                 FOLDER MANIFEST
//
// FOLDER is served over HTTP on 127.0.0.1 (ephemeral port) next to a small page that loads dash.js from this
// folder's node_modules (and its Smooth Streaming module for --format smooth). The page plays FOLDER/MANIFEST
// muted. Success: video.currentTime passes --min-time (default 6) within --timeout (default 40) seconds, the
// video element decoded frames, and neither dash.js nor the video element reported an error, and no request
// the player made failed. Exit code 0 on success, 1 on a failed check, 2 on a bad command line.
// With --seek: once --min-time seconds are buffered (instead of played), the video is paused and seeked to
// --seek seconds; the picture it then shows is written to --grab as raw RGBA, and its media time is printed as
// "play.mjs: seek: shown MEDIA_TIME WIDTHxHEIGHT".
// --clearkey hands the player a W3C ClearKey licence of its keys (key id and key as 32 hexadecimal digits each), for
// encrypted presentations. --player shaka plays with shaka-player instead of dash.js (DASH only). --format hls plays
// a multivariant playlist with hls.js (its ClearKey licence comes from a licence address of this server); with
// --switch-level it starts on the first variant and, past 2 s, is made to switch to the last, which it must show.
// --require-type TYPE ends with 77 (and says so) when MediaSource.isTypeSupported(TYPE) is false in this Chromium.
// --manifest-url URL plays a live presentation that another server serves (fmp4mux --serve) in place of
// FOLDER MANIFEST; with --max-latency SECONDS it is played in dash.js's low-latency mode for --min-time seconds from
// its first frame, the player's own live-latency figure is read every 250 ms and printed, and the run fails when
// it passes SECONDS or the video stalls (after playback started, a 'waiting' event not followed by 'playing'
// within 40 ms, a frame's time).
// --cues-vtt PATH (a WebVTT file below FOLDER, which Chromium's own WebVTT parser reads through a <track> element) or
// --cues-json FILE (a list of {start, end, text}, seconds from the media's start) gives the subtitle cues the
// presentation must expose: once played, the cues of the player's text track on video.textTracks must be those, in
// number, start and end (within 1 ms, after the offset of the first video segment in the MPD) and text (without
// its tags). --cues-zero SECONDS: the source's time of its first video picture, when the cues count from the
// source's own zero (a subtitle stream inside the media) rather than from that picture (a subtitle file).
// --events FILE (a list of {time, hex}: seconds of media time, the message in hexadecimal) gives the SCTE-35 events
// (scheme urn:scte:scte35:2013:bin) the presentation must make dash.js fire, from the MPD or from emsg boxes: once
// played, each must have fired once, at its presentation time within one frame (40 ms) and not before it, with its
// message bytes.
// The browser and the server are closed on every path.

import http from 'node:http';
import fs from 'node:fs';
import fsp from 'node:fs/promises';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const HERE = path.dirname(fileURLToPath(import.meta.url));
const CHROMIUM = process.env.E2E_CHROMIUM || '/usr/bin/chromium';
const DASHJS_DIST = path.join(HERE, 'node_modules', 'dashjs', 'dist', 'modern', 'umd');
const PLAYER_FILES = {
  '/__player/hls.min.js': path.join(HERE, 'node_modules', 'hls.js', 'dist', 'hls.min.js'),
  '/__player/dash.all.min.js': path.join(DASHJS_DIST, 'dash.all.min.js'),
  '/__player/dash.mss.min.js': path.join(DASHJS_DIST, 'dash.mss.min.js'),
  '/__player/shaka-player.compiled.js': path.join(HERE, 'node_modules', 'shaka-player', 'dist', 'shaka-player.compiled.js'),
};

function usage(message) {
  if (message) console.error(`play.mjs: ${message}`);
  console.error('usage: node play.mjs [--format dash|smooth] [--min-time SECONDS] [--timeout SECONDS] FOLDER MANIFEST');
  process.exit(2);
}

function parseArgs(argv) {
  const opts = { format: 'dash', player: 'dashjs', clearKey: null, minTime: 6, timeout: 40, seek: null, grab: null,
                 manifestUrl: null, maxLatency: null, switchLevel: false, requireType: null, cuesVtt: null, cuesJson: null,
                 events: null, positional: [] };
  for (let i = 0; i < argv.length; i++) {
    const a = argv[i];
    const value = () => {
      if (i + 1 >= argv.length) usage(`${a} needs a value`);
      return argv[++i];
    };
    if (a === '--format') opts.format = value();
    else if (a === '--player') opts.player = value();
    else if (a === '--clearkey') opts.clearKey = value();
    else if (a === '--min-time') opts.minTime = Number(value());
    else if (a === '--timeout') opts.timeout = Number(value());
    else if (a === '--seek') opts.seek = Number(value());
    else if (a === '--grab') opts.grab = value();
    else if (a === '--manifest-url') opts.manifestUrl = value();
    else if (a === '--max-latency') opts.maxLatency = Number(value());
    else if (a === '--switch-level') opts.switchLevel = true;
    else if (a === '--require-type') opts.requireType = value();
    else if (a === '--cues-vtt') opts.cuesVtt = value();
    else if (a === '--cues-json') opts.cuesJson = value();
    else if (a === '--cues-zero') opts.cuesZero = Number(value());
    else if (a === '--events') opts.events = value();
    else if (a.startsWith('--')) usage(`unknown option ${a}`);
    else opts.positional.push(a);
  }
  if (!['dash', 'smooth', 'hls'].includes(opts.format)) usage(`unknown format ${opts.format}`);
  if (opts.format === 'hls') opts.player = 'hlsjs';
  if (!['dashjs', 'shaka', 'hlsjs'].includes(opts.player)) usage(`unknown player ${opts.player}`);
  if (opts.switchLevel && opts.player !== 'hlsjs') usage('--switch-level goes with --format hls');
  if (opts.player === 'shaka' && opts.format !== 'dash') usage('shaka plays DASH only here');
  if (opts.events !== null && opts.player !== 'dashjs') usage('--events goes with dash.js');
  if (opts.clearKey !== null && !/^[0-9a-fA-F]{32}:[0-9a-fA-F]{32}(,[0-9a-fA-F]{32}:[0-9a-fA-F]{32})*$/.test(opts.clearKey))
    usage('--clearkey takes KID:KEY[,KID:KEY...], 32 hexadecimal digits each');
  if (!(opts.minTime > 0)) usage('--min-time must be a positive number');
  if (!(opts.timeout > 0 && opts.timeout <= 120)) usage('--timeout must be in (0, 120] seconds');
  if ((opts.seek === null) !== (opts.grab === null)) usage('--seek and --grab go together');
  if (opts.seek !== null && !(opts.seek >= 0)) usage('--seek must be a time in seconds');
  if (opts.maxLatency !== null && !(opts.maxLatency > 0 && opts.manifestUrl)) usage('--max-latency takes seconds, with --manifest-url');
  if (opts.manifestUrl) {
    if (!/^http:\/\/(127\.0\.0\.1|localhost)[:/]/.test(opts.manifestUrl)) usage('--manifest-url must be on 127.0.0.1');
    if (opts.positional.length !== 0) usage('FOLDER and MANIFEST go without --manifest-url');
    opts.positional = [os.tmpdir(), ''];
  }
  if (opts.positional.length !== 2) usage('FOLDER and MANIFEST are required');
  [opts.folder, opts.manifest] = opts.positional;
  opts.folder = path.resolve(opts.folder);
  return opts;
}

// Content types by file name; Smooth media files have no extension and are fragmented MP4.
function contentType(filePath) {
  const base = path.basename(filePath);
  const ext = path.extname(base).toLowerCase();
  switch (ext) {
    case '.mpd': return 'application/dash+xml';
    case '.m3u8': return 'application/vnd.apple.mpegurl';
    case '.mp4': return 'video/mp4';
    case '.m4s': return 'video/iso.segment';
    case '.m4v': return 'video/mp4';
    case '.m4a': return 'audio/mp4';
    case '.vtt': return 'text/vtt';
    case '.ttml': return 'application/ttml+xml';
    case '.xml': return 'application/xml';
    case '.html': return 'text/html; charset=utf-8';
    case '.js': return 'text/javascript; charset=utf-8';
    case '.ism': case '.isml': return 'text/xml';
    case '': return base === 'Manifest' ? 'text/xml' : 'video/mp4';
    default: return 'application/octet-stream';
  }
}

// The key id and key of --clearkey as the players take them: dash.js base64url, shaka hexadecimal; hls.js fetches a
// W3C ClearKey licence (JSON Web Key set) from this server.
const b64url = (hex) => Buffer.from(hex, 'hex').toString('base64url');
function clearKeys(clearKey, player) {
  if (!clearKey) return null;
  const pairs = clearKey.toLowerCase().split(',').map((pair) => pair.split(':'));
  if (player === 'shaka') return Object.fromEntries(pairs);
  if (player === 'hlsjs') return { 'org.w3.clearkey': { licenseUrl: '/__player/clearkey' } };
  return { 'org.w3.clearkey': { clearkeys: Object.fromEntries(pairs.map(([kid, key]) => [b64url(kid), b64url(key)])) } };
}

// The page around a player: the video element, the player's scripts, and the state play.mjs reads back (errors
// and events of the video element); `body` starts the player.
function playerPage(scripts, body) {
  return `<!DOCTYPE html>
<html>
<head><meta charset="utf-8"><title>fmp4mux playback test</title></head>
<body>
<video id="video" muted autoplay playsinline width="640" height="360"></video>
${scripts.map((s) => `<script src="${s}"></script>`).join('\n')}
<script>
  const state = window.__e2e = { dashErrors: [], videoErrors: [], events: [], started: false, fatal: null };
  const video = document.getElementById('video');
  video.muted = true;
  video.addEventListener('error', () => {
    const e = video.error;
    state.videoErrors.push({ code: e && e.code, message: e && e.message });
  });
  for (const name of ['loadedmetadata', 'canplay', 'playing', 'waiting', 'stalled', 'ended']) {
    video.addEventListener(name, () => state.events.push({ event: name, t: video.currentTime, at: performance.now() }));
  }
${body}
</script>
</body>
</html>
`;
}

function pageHtml(format, manifest, player, clearKey, manifestUrl, lowLatency, switchLevel, events) {
  const keys = JSON.stringify(clearKeys(clearKey, player));
  const source = manifestUrl || "/" + manifest;
  if (player === 'shaka') return shakaPageHtml(manifest, keys);
  if (player === 'hlsjs') return hlsPageHtml(source, keys, lowLatency, switchLevel);
  const scripts = ['/__player/dash.all.min.js'];
  if (format === 'smooth') scripts.push('/__player/dash.mss.min.js');
  return playerPage(scripts, `
  try {
    const player = dashjs.MediaPlayer().create();
    player.updateSettings({ debug: { logLevel: dashjs.Debug.LOG_LEVEL_WARNING } });
    // Low latency: the target comes from the MPD's ServiceDescription; the player speeds up or slows down to hold it.
    if (${JSON.stringify(!!lowLatency)}) player.updateSettings({ streaming: { liveCatchup: { enabled: true } } });
    player.on(dashjs.MediaPlayer.events.ERROR, (e) => {
      const err = e && e.error;
      state.dashErrors.push({ code: err && err.code, message: err && err.message,
                              data: err && err.data ? JSON.stringify(err.data).slice(0, 500) : undefined });
    });
    player.on(dashjs.MediaPlayer.events.PLAYBACK_STARTED, () => { state.started = true; });
    // SCTE-35 events as they start: their time, their message (bytes in hexadecimal, or the MPD's text) and when
    // they fired.
    state.splices = [];
    if (${JSON.stringify(!!events)}) {
      player.on('urn:scte:scte35:2013:bin', (e) => {
        const ev = e.event || {};
        const data = ev.messageData;
        const hex = data && typeof data !== 'string'
          ? Array.from(new Uint8Array(data.buffer ? data.buffer.slice(data.byteOffset, data.byteOffset + data.byteLength) : data))
              .map((b) => b.toString(16).padStart(2, '0')).join('')
          : null;
        const scale = ev.eventStream && ev.eventStream.timescale;
        state.splices.push({ id: ev.id, time: ev.calculatedPresentationTime !== undefined ? ev.calculatedPresentationTime
                                                                                     : ev.presentationTime / scale,
                             hex, text: typeof data === 'string' ? data : null, firedAt: video.currentTime });
      }, null, { mode: dashjs.MediaPlayer.events.EVENT_MODE_ON_START });
    }
    const keys = ${keys};
    if (keys) player.setProtectionData(keys);
    // dash.js's Smooth Streaming module signals PlayReady and Widevine only, from the PlayReady header: a ClearKey
    // licence needs a ClearKey entry beside them, for the same key id.
    if (keys && ${JSON.stringify(format)} === 'smooth') {
      player.on(dashjs.MediaPlayer.events.MANIFEST_LOADED, (e) => {
        for (const period of (e.data && e.data.Period) || []) {
          for (const set of period.AdaptationSet || []) {
            const known = (set.ContentProtection || []).find((c) => c['cenc:default_KID']);
            if (known) set.ContentProtection.push({ schemeIdUri: 'urn:uuid:1077efec-c0b2-4d02-ace3-3c1e52e2fb4b',
                                                    value: 'org.w3.clearkey', 'cenc:default_KID': known['cenc:default_KID'] });
          }
        }
      });
    }
    // dash.js shows TTML subtitles only in a rendering element of the page's.
    const ttml = document.createElement('div');
    document.body.appendChild(ttml);
    player.initialize(video, ${JSON.stringify(source)}, true);
    player.attachTTMLRenderingDiv(ttml);
    window.__player = player;
  } catch (e) {
    state.fatal = String(e && e.stack || e);
  }
`);
}

// The same checks with shaka-player: its errors count as the player's.
function shakaPageHtml(manifest, keys) {
  return playerPage(['/__player/shaka-player.compiled.js'], `
  (async () => {
    video.addEventListener('playing', () => { state.started = true; });
    shaka.polyfill.installAll();
    const player = new shaka.Player();
    await player.attach(video);
    player.addEventListener('error', (e) => {
      const err = e.detail || {};
      state.dashErrors.push({ code: err.code, message: 'shaka error ' + err.code, data: JSON.stringify(err.data || []).slice(0, 500) });
    });
    const keys = ${keys};
    if (keys) player.configure({ drm: { clearKeys: keys } });
    await player.load(${JSON.stringify("/" + manifest)});
    // shaka fetches subtitles only while they are shown.
    await player.setTextTrackVisibility(true);
    await video.play();
  })().catch((e) => {
    state.dashErrors.push({ code: e && e.code, message: 'shaka: ' + String(e && (e.message || e.code) || e) });
  });
`);
}

// hls.js: fatal errors count as the player's, the others are kept for the log; the variants it switches to are
// recorded, and with --switch-level it is sent from the first to the last once 2 s have played.
function hlsPageHtml(source, keys, lowLatency, switchLevel) {
  return playerPage(['/__player/hls.min.js'], `
  try {
    const drm = ${keys};
    const hls = new Hls({ lowLatencyMode: ${JSON.stringify(!!lowLatency)}, startLevel: ${switchLevel ? 0 : -1},
                          emeEnabled: !!drm, drmSystems: drm || {} });
    state.switches = [];
    state.notes = [];
    hls.on(Hls.Events.ERROR, (event, data) => {
      const entry = { code: data.details, message: data.type + ' ' + data.details + (data.error ? ': ' + data.error.message : ''),
                      fatal: data.fatal };
      (data.fatal ? state.dashErrors : state.notes).push(entry);
    });
    hls.on(Hls.Events.LEVEL_SWITCHED, (event, data) => state.switches.push(data.level));
    // Subtitles are off by default (no rendition is DEFAULT): show the first, so that hls.js fetches it (hls.js
    // follows the mode of the text tracks it made on the video).
    video.textTracks.addEventListener('addtrack', (e) => { if (e.track.kind === 'subtitles') e.track.mode = 'showing'; });
    video.addEventListener('playing', () => { state.started = true; });
    if (${JSON.stringify(!!switchLevel)}) {
      const ask = () => {
        if (video.currentTime > 2) hls.currentLevel = hls.levels.length - 1;
        else setTimeout(ask, 100);
      };
      ask();
    }
    hls.loadSource(${JSON.stringify(source)});
    hls.attachMedia(video);
    video.play().catch(() => {});
    window.__player = hls;
  } catch (e) {
    state.fatal = String(e && e.stack || e);
  }
`);
}

function startServer(folder, opts, requests) {
  const { format, manifest } = opts;
  const server = http.createServer((req, res) => {
    const send = (status, type, body) => {
      requests.push({ method: req.method, url: req.url, status });
      res.writeHead(status, { 'Content-Type': type, 'Cache-Control': 'no-store' });
      res.end(req.method === 'HEAD' ? undefined : body);
    };
    let urlPath;
    try {
      urlPath = decodeURIComponent(new URL(req.url, 'http://127.0.0.1').pathname);
    } catch {
      return send(400, 'text/plain', 'bad url');
    }
    if (req.method === 'POST' && urlPath === '/__player/clearkey' && opts.clearKey) {
      // The licence: every key of --clearkey, whatever key ids the request names.
      const keys = opts.clearKey.toLowerCase().split(',').map((pair) => pair.split(':'))
        .map(([kid, key]) => ({ kty: 'oct', kid: b64url(kid), k: b64url(key) }));
      req.resume();
      return send(200, 'application/json', JSON.stringify({ keys, type: 'temporary' }));
    }
    if (req.method !== 'GET' && req.method !== 'HEAD') return send(405, 'text/plain', 'method not allowed');
    if (urlPath === '/__player/index.html') return send(200, contentType('index.html'), pageHtml(format, manifest, opts.player, opts.clearKey, opts.manifestUrl, opts.maxLatency !== null, opts.switchLevel, opts.events !== null));
    if (urlPath === '/favicon.ico') return send(204, 'image/x-icon', '');
    let filePath = PLAYER_FILES[urlPath];
    if (!filePath) {
      filePath = path.resolve(folder, '.' + urlPath);
      if (filePath !== folder && !filePath.startsWith(folder + path.sep)) return send(403, 'text/plain', 'forbidden');
    }
    fs.readFile(filePath, (err, data) => {
      if (err) return send(404, 'text/plain', 'not found');
      send(200, contentType(filePath), data);
    });
  });
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => resolve(server));
  });
}

function closeServer(server) {
  return new Promise((resolve) => {
    server.close(() => resolve());
    server.closeAllConnections?.();
  });
}

async function main() {
  const opts = parseArgs(process.argv.slice(2));
  if (!opts.manifestUrl && !fs.existsSync(path.join(opts.folder, opts.manifest))) {
    console.error(`play.mjs: FAIL: no manifest ${path.join(opts.folder, opts.manifest)}`);
    return 1;
  }
  for (const f of Object.values(PLAYER_FILES)) {
    if (!fs.existsSync(f)) {
      console.error(`play.mjs: FAIL: ${f} is missing (run npm ci --no-audit --no-fund in ${HERE})`);
      return 1;
    }
  }
  if (!fs.existsSync(CHROMIUM)) {
    console.error(`play.mjs: FAIL: ${CHROMIUM} is missing (bash scripts/install-deps.sh installs Debian's chromium)`);
    return 1;
  }
  const { chromium } = await import('playwright-core');

  const requests = [];
  const consoleLines = [];
  let server = null;
  let context = null;
  let userDataDir = null;
  // A last resort against a hang anywhere below: the run is bounded whatever happens.
  const watchdog = setTimeout(async () => {
    console.error('play.mjs: FAIL: watchdog expired; closing the browser and the server');
    try { if (context) await Promise.race([context.close(), new Promise((r) => setTimeout(r, 5000))]); } catch {}
    process.exit(1);
  }, (opts.timeout + 60) * 1000);
  watchdog.unref();

  try {
    server = await startServer(opts.folder, opts, requests);
    const { port } = server.address();
    const pageUrl = `http://127.0.0.1:${port}/__player/index.html`;
    userDataDir = await fsp.mkdtemp(path.join(os.tmpdir(), 'fmp4mux-e2e-chromium-'));
    context = await chromium.launchPersistentContext(userDataDir, {
      executablePath: CHROMIUM,
      headless: true,
      timeout: 30000,
      args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
             '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    });
    const browserVersion = context.browser()?.version() ?? '(unknown)';
    const page = context.pages()[0] ?? await context.newPage();
    page.on('console', (msg) => consoleLines.push(`[console.${msg.type()}] ${msg.text()}`));
    page.on('pageerror', (err) => consoleLines.push(`[pageerror] ${err.message}`));
    page.on('requestfailed', (r) => consoleLines.push(`[requestfailed] ${r.url()} ${r.failure()?.errorText}`));
    // What the other server answered, for --manifest-url: its failures count as the player's.
    if (opts.manifestUrl) {
      page.on('response', (r) => {
        if (!r.url().includes('/__player/') && !r.url().endsWith('/favicon.ico'))
          requests.push({ method: r.request().method(), url: r.url(), status: r.status() });
      });
    }

    console.log(`play.mjs: ${opts.format}: serving ${opts.folder} at http://127.0.0.1:${port}/, playing ${opts.manifest} ` +
                `in Chromium ${browserVersion}`);
    await page.goto(pageUrl, { waitUntil: 'load', timeout: 15000 });
    // A media type this Chromium's MediaSource refuses can't be played here at all: say so, and end with 77 (skip).
    if (opts.requireType !== null &&
        !(await page.evaluate((t) => window.MediaSource && MediaSource.isTypeSupported(t), opts.requireType))) {
      console.log(`play.mjs: this Chromium (${browserVersion}) refuses MediaSource type ${opts.requireType}`);
      return 77;
    }

    if (opts.maxLatency !== null) return await playLive(page, opts, requests, consoleLines);
    const started = Date.now();
    let reached = true;
    const seeking = opts.seek !== null;
    try {
      await page.waitForFunction(
        ([minTime, buffered]) => {
          const s = window.__e2e;
          const v = document.getElementById('video');
          const reached = buffered ? v.buffered.length > 0 && v.buffered.end(v.buffered.length - 1) > minTime
                                   : v.currentTime > minTime;
          return !s || s.fatal || s.dashErrors.length > 0 || s.videoErrors.length > 0 || v.error || reached;
        },
        [opts.minTime, seeking], { timeout: opts.timeout * 1000, polling: 250 });
    } catch (e) {
      if (e?.name !== 'TimeoutError') throw e;
      reached = false;
    }
    const elapsed = (Date.now() - started) / 1000;

    let shown = null;
    if (seeking && reached) {
      // Paused, seeked, and the picture then presented: its media time from requestVideoFrameCallback (the
      // current time if no frame callback comes), its pixels drawn on a canvas of the video's own size.
      shown = await page.evaluate(async (t) => {
        const v = document.getElementById('video');
        v.pause();
        await new Promise((resolve) => { v.addEventListener('seeked', resolve, { once: true }); v.currentTime = t; });
        const mediaTime = await new Promise((resolve) => {
          const timer = setTimeout(() => resolve(v.currentTime), 3000);
          v.requestVideoFrameCallback((now, meta) => { clearTimeout(timer); resolve(meta.mediaTime); });
        });
        const canvas = document.createElement('canvas');
        canvas.width = v.videoWidth;
        canvas.height = v.videoHeight;
        const context = canvas.getContext('2d');
        context.drawImage(v, 0, 0);
        const pixels = context.getImageData(0, 0, canvas.width, canvas.height).data;
        let text = '';
        for (let i = 0; i < pixels.length; i += 0x8000) text += String.fromCharCode.apply(null, pixels.subarray(i, i + 0x8000));
        return { mediaTime, width: canvas.width, height: canvas.height, rgba: btoa(text) };
      }, opts.seek);
      await fsp.writeFile(opts.grab, Buffer.from(shown.rgba, 'base64'));
      console.log(`play.mjs: seek: shown ${shown.mediaTime} ${shown.width}x${shown.height}`);
    }

    const seen = await page.evaluate(() => {
      const v = document.getElementById('video');
      const q = v.getVideoPlaybackQuality();
      const ranges = [];
      for (let i = 0; i < v.buffered.length; i++) ranges.push([v.buffered.start(i), v.buffered.end(i)]);
      const s = window.__e2e || {};
      const p = window.__player;
      const tracks = (type) => {
        try { return (p.getTracksFor(type) || []).map((t) => ({ codec: t.codec, id: t.id })); } catch { return []; }
      };
      return {
        currentTime: v.currentTime,
        paused: v.paused,
        readyState: v.readyState,
        videoWidth: v.videoWidth,
        videoHeight: v.videoHeight,
        duration: v.duration,
        buffered: ranges,
        totalVideoFrames: q.totalVideoFrames,
        droppedVideoFrames: q.droppedVideoFrames,
        videoElementError: v.error ? { code: v.error.code, message: v.error.message } : null,
        dashErrors: s.dashErrors || [],
        videoErrors: s.videoErrors || [],
        fatal: s.fatal || null,
        started: !!s.started,
        events: s.events || [],
        switches: s.switches || [],
        levels: p && p.levels ? p.levels.map((l) => l.width) : [],
        notes: s.notes || [],
        videoTracks: tracks('video'),
        audioTracks: tracks('audio'),
      };
    });

    const failedRequests = requests.filter((r) => r.status >= 400);
    const mediaRequests = requests.filter((r) => !r.url.startsWith('/__player/') && r.url !== '/favicon.ico');
    console.log(`play.mjs: after ${elapsed.toFixed(1)} s: currentTime ${seen.currentTime.toFixed(3)} s, ` +
                `${seen.totalVideoFrames} video frames decoded (${seen.droppedVideoFrames} dropped), ` +
                `${seen.videoWidth}x${seen.videoHeight}, duration ${seen.duration}, buffered ${JSON.stringify(seen.buffered)}`);
    console.log(`play.mjs: tracks: video ${JSON.stringify(seen.videoTracks)}, audio ${JSON.stringify(seen.audioTracks)}; ` +
                `${mediaRequests.length} requests for the presentation, ${failedRequests.length} failed`);

    const problems = [];
    if (seen.fatal) problems.push(`the page failed to set up dash.js: ${seen.fatal}`);
    if (!reached) problems.push(`${seeking ? 'the buffer' : 'currentTime'} did not pass ${opts.minTime} s within ${opts.timeout} s`);
    else if (!seeking && !(seen.currentTime > opts.minTime)) problems.push(`stopped at currentTime ${seen.currentTime} (an error came first)`);
    if (seeking && shown && !(shown.width > 0)) problems.push('no picture was shown after the seek');
    if (!(seen.totalVideoFrames > 0)) problems.push('no video frame was decoded');
    if (seen.dashErrors.length) problems.push(`dash.js reported errors: ${JSON.stringify(seen.dashErrors)}`);
    if (seen.videoErrors.length || seen.videoElementError) {
      problems.push(`the video element reported an error: ${JSON.stringify(seen.videoErrors.length ? seen.videoErrors : seen.videoElementError)}`);
    }
    if (failedRequests.length) problems.push(`requests failed: ${JSON.stringify(failedRequests)}`);
    if (seen.notes.length) console.log(`play.mjs: hls.js notes: ${JSON.stringify(seen.notes).slice(0, 1000)}`);
    if (opts.cuesVtt || opts.cuesJson) problems.push(...await checkCues(page, opts));
    if (opts.events) problems.push(...await checkEvents(page, opts));
    if (opts.switchLevel) {
      const last = seen.levels.length - 1;
      console.log(`play.mjs: variants ${JSON.stringify(seen.levels)} wide; switched to ${JSON.stringify(seen.switches)}`);
      if (last < 1 || seen.switches[0] !== 0 || !seen.switches.includes(last)) problems.push('hls.js did not switch from the first variant to the last');
      else if (seen.videoWidth !== seen.levels[last]) problems.push(`the picture is ${seen.videoWidth} wide, not the last variant's ${seen.levels[last]}`);
    }

    if (problems.length) {
      for (const p of problems) console.error(`play.mjs: FAIL: ${p}`);
      console.error(`play.mjs: video events: ${JSON.stringify(seen.events)}`);
      console.error('play.mjs: requests served:');
      for (const r of requests) console.error(`  ${r.status} ${r.method} ${r.url}`);
      console.error(`play.mjs: browser console (${consoleLines.length} lines, last 200):`);
      for (const l of consoleLines.slice(-200)) console.error(`  ${l}`);
      return 1;
    }
    console.log(`play.mjs: PASS: ${opts.format} ${seeking ? `buffered past ${opts.minTime} s and showed a picture at ${opts.seek} s` : `played past ${opts.minTime} s`}`);
    return 0;
  } catch (e) {
    console.error(`play.mjs: FAIL: ${e?.stack || e}`);
    if (consoleLines.length) {
      console.error('play.mjs: browser console:');
      for (const l of consoleLines.slice(-200)) console.error(`  ${l}`);
    }
    return 1;
  } finally {
    if (context) {
      try { await Promise.race([context.close(), new Promise((r) => setTimeout(r, 10000))]); }
      catch (e) { console.error(`play.mjs: closing the browser: ${e?.message || e}`); }
    }
    if (server) await closeServer(server);
    if (userDataDir) await fsp.rm(userDataDir, { recursive: true, force: true }).catch(() => {});
    clearTimeout(watchdog);
  }
}

// The SCTE-35 events dash.js fired against those expected; problems as text.
async function checkEvents(page, opts) {
  const expected = JSON.parse(await fsp.readFile(opts.events, 'utf8'));
  const fired = await page.evaluate(() => (window.__e2e && window.__e2e.splices) || []);
  console.log(`play.mjs: events fired: ${JSON.stringify(fired)}`);
  const bytesOf = (f) => f.hex !== null ? f.hex : Buffer.from(f.text.trim(), 'base64').toString('hex');
  const problems = [];
  if (fired.length !== expected.length) problems.push(`${fired.length} events fired, not ${expected.length}`);
  for (const e of expected) {
    const f = fired.find((x) => bytesOf(x) === e.hex.toLowerCase());
    if (!f) problems.push(`no event fired with the message ${e.hex}`);
    else if (!(Math.abs(f.time - e.time) <= 0.040)) problems.push(`the event of ${e.hex} is at ${f.time} s, not ${e.time} s`);
    else if (!(f.firedAt >= e.time - 0.040)) problems.push(`the event of ${e.hex} fired at ${f.firedAt} s, before its time ${e.time} s`);
  }
  return problems;
}

// The cues the player put on the video's text tracks against those of the source; problems as text.
async function checkCues(page, opts) {
  let expected;
  if (opts.cuesJson) {
    expected = JSON.parse(await fsp.readFile(opts.cuesJson, 'utf8'));
  } else {
    expected = await page.evaluate(async (src) => {
      const v = document.createElement('video');
      const t = document.createElement('track');
      t.kind = 'subtitles';
      t.src = '/' + src;
      t.default = true;
      v.appendChild(t);
      document.body.appendChild(v);
      t.track.mode = 'hidden';
      await new Promise((resolve, reject) => { t.addEventListener('load', resolve); t.addEventListener('error', reject); });
      return Array.from(t.track.cues).map((c) => ({ start: c.startTime, end: c.endTime, text: c.text }));
    }, opts.cuesVtt);
  }
  // Zero of the source is the first video segment's start; players keep the media's own times. An HLS run is
  // packaged with an MPD beside its playlists, which says where that is.
  const mpdName = opts.manifest.endsWith('.m3u8') ? 'manifest.mpd' : opts.manifest;
  const mpd = await fsp.readFile(path.join(opts.folder, mpdName), 'utf8');
  const video = mpd.split('<AdaptationSet').find((set) => set.includes('contentType="video"')) || '';
  const t0 = /<S t="(\d+)"/.exec(video);
  const scale = /timescale="(\d+)"/.exec(video);
  // Cues of a subtitle stream inside the media count from the container's zero, not from its first picture.
  const offset = (t0 && scale ? Number(t0[1]) / Number(scale[1]) : 0) - (opts.cuesZero || 0);
  const got = await page.evaluate(() => {
    const tracks = Array.from(document.getElementById('video').textTracks);
    // The text of an imsc intermediate document (dash.js keeps TTML cues as one, rendered when shown).
    const isdText = (node) => (node && (node.text || (node.contents || []).map(isdText).join(''))) || '';
    for (const t of tracks) if (t.mode === 'disabled') t.mode = 'hidden';
    return tracks.map((t) => ({ kind: t.kind, label: t.label, language: t.language,
                                cues: Array.from(t.cues || []).map((c) => ({ start: c.startTime, end: c.endTime,
                                                                            text: c.text || isdText(c.isd) })) }));
  });
  const track = got.find((t) => t.cues.length > 0) || got[0];
  console.log(`play.mjs: text tracks ${JSON.stringify(got.map((t) => ({ kind: t.kind, language: t.language, cues: t.cues.length })))}; ` +
              `${expected.length} cues expected, offset ${offset} s`);
  if (!track) return ['the video has no text track'];
  const problems = [];
  if (track.cues.length !== expected.length) problems.push(`${track.cues.length} cues, not ${expected.length}: ${JSON.stringify(track.cues)}`);
  expected.forEach((e, i) => {
    const c = track.cues[i];
    if (!c) return;
    // Texts compare without their markup: a player turns TTML styling into WebVTT tags of its own.
    const plain = (text) => text.replace(/<[^>]*>/g, '');
    if (Math.abs(c.start - offset - e.start) > 0.001 || Math.abs(c.end - offset - e.end) > 0.001 || plain(c.text) !== plain(e.text))
      problems.push(`cue ${i}: ${JSON.stringify(c)} (less ${offset} s), not ${JSON.stringify(e)}`);
  });
  return problems;
}

// Low-latency live play: from the first frame on, --min-time seconds of play with the player's live-latency figure
// read every 250 ms; no stall, no error, and the latency always below --max-latency.
async function playLive(page, opts, requests, consoleLines) {
  await page.waitForFunction(() => {
    const s = window.__e2e;
    return !s || s.fatal || s.dashErrors.length > 0 || s.events.some((e) => e.event === 'playing');
  }, null, { timeout: opts.timeout * 1000, polling: 100 });
  const samples = [];
  const playStart = Date.now();
  let seen = null;
  while (Date.now() - playStart < opts.minTime * 1000) {
    seen = await page.evaluate(() => {
      const s = window.__e2e || {};
      const v = document.getElementById('video');
      let latency = NaN;
      try {
        const p = window.__player;
        latency = typeof p.getCurrentLiveLatency === 'function' ? p.getCurrentLiveLatency() : p.latency;  // hls.js: latency
      } catch {}
      // A stall: the video waits after playback started and does not play on within a frame (40 ms); a wait
      // that ends before the next frame is due shows nothing to the viewer, and is only counted.
      const firstPlaying = (s.events || []).findIndex((e) => e.event === 'playing');
      const after = firstPlaying < 0 ? [] : s.events.slice(firstPlaying);
      let stalls = 0, waits = 0;
      after.forEach((e, i) => {
        if (e.event !== 'waiting') return;
        ++waits;
        const resumed = after.slice(i + 1).find((n) => n.event === 'playing');
        if (!resumed || resumed.at - e.at >= 40) ++stalls;
      });
      return { latency, currentTime: v.currentTime, stalls, waits, errors: (s.dashErrors || []).concat(s.videoErrors || []),
               fatal: s.fatal || null, frames: v.getVideoPlaybackQuality().totalVideoFrames, events: s.events };
    });
    if (Number.isFinite(seen.latency) && seen.latency > 0) samples.push(seen.latency);
    if (seen.fatal || seen.errors.length) break;
    await new Promise((r) => setTimeout(r, 250));
  }
  const played = (Date.now() - playStart) / 1000;
  const sorted = [...samples].sort((a, b) => a - b);
  const median = sorted.length ? sorted[Math.floor(sorted.length / 2)] : NaN;
  const max = sorted.length ? sorted[sorted.length - 1] : NaN;
  console.log(`play.mjs: live latency over ${played.toFixed(1)} s of play: median ${median.toFixed(3)} s, ` +
              `max ${max.toFixed(3)} s, ${samples.length} readings; ${seen.stalls} stalls (${seen.waits} waits); currentTime ` +
              `${seen.currentTime.toFixed(3)} s, ${seen.frames} frames decoded`);
  const problems = [];
  if (seen.fatal) problems.push(`the page failed to set up dash.js: ${seen.fatal}`);
  if (seen.errors.length) problems.push(`the player reported errors: ${JSON.stringify(seen.errors).slice(0, 2000)}`);
  if (played < opts.minTime) problems.push(`played ${played.toFixed(1)} s only`);
  if (samples.length < opts.minTime * 2) problems.push(`only ${samples.length} latency readings`);
  if (!(max < opts.maxLatency)) problems.push(`the live latency reached ${max.toFixed(3)} s (limit ${opts.maxLatency} s)`);
  if (seen.stalls > 0) problems.push(`${seen.stalls} stalls: ${JSON.stringify(seen.events)}`);
  const failed = requests.filter((r) => r.status >= 400);
  if (failed.length) problems.push(`requests failed: ${JSON.stringify(failed.slice(0, 20))}`);
  if (opts.player === 'hlsjs') {
    // LL-HLS as meant: playlists reloaded by blocking requests, parts fetched as byte ranges (status 206).
    const blocking = requests.filter((r) => r.url.includes('_HLS_msn=')).length;
    const parts = requests.filter((r) => r.status === 206).length;
    console.log(`play.mjs: ${blocking} blocking playlist reloads, ${parts} partial segments fetched`);
    if (!blocking || !parts) problems.push('hls.js did not play by blocking reloads and partial segments');
  }
  if (problems.length) {
    for (const p of problems) console.error(`play.mjs: FAIL: ${p}`);
    for (const l of consoleLines.slice(-100)) console.error(`  ${l}`);
    return 1;
  }
  console.log(`play.mjs: PASS: low-latency live play for ${played.toFixed(1)} s, latency below ${opts.maxLatency} s`);
  return 0;
}

main().then((code) => process.exit(code), (e) => {
  console.error(`play.mjs: FAIL: ${e?.stack || e}`);
  process.exit(1);
});
