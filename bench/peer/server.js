'use strict';
// The session protocol subset (protocol.js) on Node.js and the ws package, as
// a point of comparison for the Qt server.
// Usage: node server.js <port> <key.pem> <cert.pem>; prints "PORT <n>" once listening.

const fs = require('fs');
const https = require('https');
const { WebSocketServer } = require('ws');
const protocol = require('./protocol');

function main() {
  const [port, keyFile, certFile] = process.argv.slice(2);
  const server = https.createServer({ key: fs.readFileSync(keyFile), cert: fs.readFileSync(certFile) });
  const wss = new WebSocketServer({ server, maxPayload: protocol.MAX_INCOMING_SIZE });
  wss.on('connection', (socket, request) => {
    protocol.onOpen(socket, request.headers.origin);
    socket.on('message', (data, isBinary) => { if (!isBinary) protocol.onMessage(socket, data.toString()); });
    socket.on('close', () => protocol.onClose(socket));
    socket.on('error', () => {});
  });
  server.listen(Number(port) || 0, '127.0.0.1', () => {
    process.stdout.write(`PORT ${server.address().port}\n`);
  });
}

main();
