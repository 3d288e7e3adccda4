'use strict';
// The session protocol's ping, heartbeat and active-clients subset, apart from
// the transport: server.js serves it with Node.js and ws, bunserver.js with
// Bun's own WebSocket server.

const HEART_BEAT_INTERVAL_MS = 20000;
const MAX_MISSED_BEATS = 3;
const MAX_INCOMING_SIZE = 64 * 1024;
const NULL_UUID = '{00000000-0000-0000-0000-000000000000}';
const UUID_PATTERN = /^\{?([0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12})\}?$/i;

// Braced lower-case form; text that is no UUID gives the null UUID.
function parseUuid(text) {
  const match = UUID_PATTERN.exec(text || '');
  return match ? `{${match[1].toLowerCase()}}` : NULL_UUID;
}

// Origin "{uuid},{session uuid},{uuid},name": fields by position, empty ones kept,
// anything after the fourth ignored.
function recordFromOrigin(origin) {
  const fields = (origin || '').split(',');
  return {
    firstUuid: parseUuid(fields[0]),
    sessionUuid: parseUuid(fields[1]),
    thirdUuid: parseUuid(fields[2]),
    guestName: fields[3] === undefined ? '' : fields[3],
    heartBeatSeen: false,
    missedBeats: 0,
  };
}

// Insertion-ordered: iteration follows the order of acceptance.
const registry = new Map();
let heartbeatTimer = null;

function activeClients() {
  const seen = new Set();
  const clients = [];
  for (const rec of registry.values()) {
    if (seen.has(rec.sessionUuid)) continue;
    seen.add(rec.sessionUuid);
    clients.push(rec);
  }
  return clients;
}

function activeClientsMessage() {
  let text = 'Active clients,';
  for (const rec of activeClients()) text += `${rec.guestName},${rec.sessionUuid},`;
  return text;
}

function stopHeartbeatWhenEmpty() {
  if (registry.size === 0 && heartbeatTimer) {
    clearInterval(heartbeatTimer);
    heartbeatTimer = null;
  }
}

function sendHeartBeat() {
  for (const [socket, rec] of registry) {
    if (rec.heartBeatSeen) {
      rec.missedBeats = 0;
      rec.heartBeatSeen = false;
    } else {
      rec.missedBeats += 1;
    }
    if (rec.missedBeats <= MAX_MISSED_BEATS) {
      socket.send('Heart Beat');
      continue;
    }
    registry.delete(socket);
    socket.terminate();
  }
  stopHeartbeatWhenEmpty();
}

// A text message from a connection; binary frames never get here.
function onMessage(socket, msg) {
  const comma = msg.indexOf(',');
  const name = comma < 0 ? msg : msg.slice(0, comma);
  if (name === 'Server ping') {
    socket.send('Server pong');
  } else if (name === 'Heart Beat') {
    const rec = registry.get(socket);
    if (rec) rec.heartBeatSeen = true;
  } else if (name === 'Get active clients') {
    socket.send(activeClientsMessage());
  }
}

// A connection once upgraded: it needs send(text) and terminate().
function onOpen(socket, origin) {
  registry.set(socket, recordFromOrigin(origin));
  if (registry.size === 1) heartbeatTimer = setInterval(sendHeartBeat, HEART_BEAT_INTERVAL_MS);
}

function onClose(socket) {
  registry.delete(socket);
  stopHeartbeatWhenEmpty();
}

module.exports = { MAX_INCOMING_SIZE, onOpen, onMessage, onClose };
