'use strict';
// A second load client, not built on Qt: opens N secure WebSockets to a
// session server on 127.0.0.1 and pings in a closed loop on each for a few
// seconds, for N = 1, 100 and 1000. Prints "RESULT <key> <value>" lines like
// tarn-load's, under its own keys (node_...).
// Usage: node client.js <port> [seconds per N]

const WebSocket = require('ws');
const { randomUUID } = require('crypto');

const port = Number(process.argv[2]);
const seconds = Number(process.argv[3] || 5);
const COUNTS = [1, 100, 1000];
const OPEN_TIMEOUT_MS = 30000;
// Handshakes in flight at once, as tarn-load has: the Qt server keeps at most
// 512 unfinished connections per /24 network.
const OPENS_IN_FLIGHT = 200;
// The Qt server gives one address 512 connections and one /24 network a rate
// of new ones; Linux answers on all of 127/8, so each connection leaves from
// an address of its own, over 64 networks, as tarn-load's connections do.
function sourceAddress(i) {
  return `127.101.${i % 64}.${1 + (Math.floor(i / 64) % 250)}`;
}

function origin(i) {
  return `{${randomUUID()}},{${randomUUID()}},{${randomUUID()}},node-${i}`;
}

function open(i) {
  return new Promise((resolve, reject) => {
    const ws = new WebSocket(`wss://127.0.0.1:${port}`,
      { rejectUnauthorized: false, origin: origin(i), localAddress: sourceAddress(i) });
    const timer = setTimeout(() => reject(new Error('open timed out')), OPEN_TIMEOUT_MS);
    ws.once('open', () => { clearTimeout(timer); resolve(ws); });
    ws.once('error', (e) => { clearTimeout(timer); reject(e); });
  });
}

function percentile(sorted, p) {
  return sorted.length ? sorted[Math.min(sorted.length - 1, Math.floor(p * sorted.length))] : 0;
}

async function pingLoop(sockets) {
  const latencies = [];
  const end = process.hrtime.bigint() + BigInt(seconds * 1e9);
  await Promise.all(sockets.map((ws) => new Promise((resolve) => {
    let sent = 0n;
    const send = () => { sent = process.hrtime.bigint(); ws.send('Server ping'); };
    ws.on('message', (data) => {
      if (data.toString() !== 'Server pong') return; // heartbeats
      const now = process.hrtime.bigint();
      latencies.push(Number(now - sent) / 1000);
      if (now < end) send(); else resolve();
    });
    ws.on('close', resolve);
    send();
  })));
  return latencies;
}

async function openAll(n) {
  const sockets = [];
  for (let first = 0; first < n; first += OPENS_IN_FLIGHT) {
    const batch = Array.from({ length: Math.min(OPENS_IN_FLIGHT, n - first) }, (_, i) => open(first + i));
    sockets.push(...await Promise.all(batch));
  }
  return sockets;
}

async function main() {
  for (const n of COUNTS) {
    const started = process.hrtime.bigint();
    const sockets = await openAll(n);
    const openSeconds = Number(process.hrtime.bigint() - started) / 1e9;
    const latencies = await pingLoop(sockets);
    latencies.sort((a, b) => a - b);
    console.log(`RESULT node_open_${n}_s ${openSeconds.toFixed(3)}`);
    console.log(`RESULT node_ping_${n}_per_s ${(latencies.length / seconds).toFixed(0)}`);
    console.log(`RESULT node_ping_${n}_p50_us ${percentile(latencies, 0.5).toFixed(0)}`);
    console.log(`RESULT node_ping_${n}_p99_us ${percentile(latencies, 0.99).toFixed(0)}`);
    await Promise.all(sockets.map((ws) => new Promise((resolve) => { ws.once('close', resolve); ws.close(); })));
  }
}

main().catch((e) => { console.error(`client.js: ${e.message}`); process.exit(1); });
