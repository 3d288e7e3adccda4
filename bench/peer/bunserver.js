'use strict';
// The session protocol subset (protocol.js) on Bun's own WebSocket server, a
// lean C++ core, as a second point of comparison.
// Usage: bun bunserver.js <port> <key.pem> <cert.pem>; prints "PORT <n>" once listening.

const protocol = require('./protocol');

function main() {
  const [port, keyFile, certFile] = process.argv.slice(2);
  const server = Bun.serve({
    hostname: '127.0.0.1',
    port: Number(port) || 0,
    tls: { key: Bun.file(keyFile), cert: Bun.file(certFile) },
    fetch(request, srv) {
      if (srv.upgrade(request, { data: { origin: request.headers.get('origin') } })) return undefined;
      return new Response('WebSocket only', { status: 426 });
    },
    websocket: {
      maxPayloadLength: protocol.MAX_INCOMING_SIZE,
      // The protocol's own heartbeat decides who is gone, as with the other servers.
      idleTimeout: 0,
      sendPings: false,
      open(socket) { protocol.onOpen(socket, socket.data.origin); },
      message(socket, message) { if (typeof message === 'string') protocol.onMessage(socket, message); },
      close(socket) { protocol.onClose(socket); },
    },
  });
  process.stdout.write(`PORT ${server.port}\n`);
}

main();
