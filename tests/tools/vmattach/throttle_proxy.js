// A TCP proxy on loopback for the vmattach transfer tests: forwards every connection to
// the address written in TARGET_FILE ("host:port", read per connection, so the proxy can
// start before the server it fronts), holds the client-to-server direction to the rate in
// RATE_FILE (bytes per second, read per chunk; 0 or missing: no limit) and keeps the count
// of bytes sent upstream in COUNT_FILE, rewritten (whole, by a rename) as each chunk is
// forwarded, so that once no connection is sending it holds every byte sent; with DOWN_RATE_FILE, holds the other direction to
// the rate in it the same way. With CUT_FILE, a connection whose answer passes the number
// of bytes written there (0 or missing: never) is cut after that many, as a storage
// provider that goes away mid-download. Prints "listening on 127.0.0.1:PORT".
//
// usage: node throttle_proxy.js TARGET_FILE RATE_FILE COUNT_FILE [DOWN_RATE_FILE [CUT_FILE]]
'use strict';
const fs = require('fs');
const net = require('net');

const [targetFile, rateFile, countFile, downRateFile, cutFile] = process.argv.slice(2);
let forwarded = 0;

function readRate(file = rateFile) {
  if (!file) return 0;
  try {
    return Number(fs.readFileSync(file, 'utf8').trim()) || 0;
  } catch {
    return 0;
  }
}

const server = net.createServer((client) => {
  const [host, port] = fs.readFileSync(targetFile, 'utf8').trim().split(':');
  const upstream = net.connect(Number(port), host);
  const close = () => {
    client.destroy();
    upstream.destroy();
  };
  client.on('error', close);
  upstream.on('error', close);
  upstream.on('close', () => client.destroy());
  client.on('end', () => upstream.end());
  const cut = readRate(cutFile);
  let answered = 0;
  if (!downRateFile && !cut) {
    upstream.pipe(client);
  } else {
    upstream.on('data', (chunk) => {
      if (cut > 0 && answered + chunk.length >= cut) {
        client.end(chunk.subarray(0, cut - answered));
        upstream.destroy();
        return;
      }
      answered += chunk.length;
      const rate = readRate(downRateFile);
      if (!client.write(chunk) || rate > 0) upstream.pause();
      const delay = rate > 0 ? (chunk.length * 1000) / rate : 0;
      if (client.writableNeedDrain) {
        client.once('drain', () => setTimeout(() => upstream.resume(), delay));
      } else if (rate > 0) {
        setTimeout(() => upstream.resume(), delay);
      }
    });
    upstream.on('end', () => client.end());
  }
  client.on('data', (chunk) => {
    upstream.write(chunk);
    forwarded += chunk.length;
    writeCount();
    const rate = readRate();
    if (rate > 0) {
      client.pause();
      setTimeout(() => client.resume(), (chunk.length * 1000) / rate);
    }
  });
});

function writeCount() {
  fs.writeFileSync(`${countFile}.new`, String(forwarded));
  fs.renameSync(`${countFile}.new`, countFile);
}

writeCount();
server.listen(0, '127.0.0.1', () => {
  console.log(`listening on 127.0.0.1:${server.address().port}`);
});
