// SPDX-FileCopyrightText: 2026 The ThreadUtilities authors
// SPDX-License-Identifier: MIT

// Worker threads, the pool behind asynchronous calls, compiled code, garbage, and child processes.

const { Worker, isMainThread, parentPort, workerData } = require('worker_threads');
const childProcess = require('child_process');
const crypto = require('crypto');
const net = require('net');
const zlib = require('zlib');

function churn(seed) {
  const kept = new Map();
  let sum = seed;
  for (let i = 0; i < 400000; ++i) {
    sum = (Math.imul(sum, 1103515245) + 12345) >>> 0;
    kept.set(sum % 5000, { text: 'v' + sum, list: [sum, i] });
  }
  return crypto.createHash('sha256')
    .update(JSON.stringify([...kept].sort((a, b) => a[0] - b[0]))).digest('hex');
}

const inWorker = (seed) => new Promise((resolve, reject) => {
  new Worker(__filename, { workerData: seed }).on('message', resolve).on('error', reject);
});

const inPool = (salt) => new Promise((resolve) => {
  crypto.pbkdf2('secret', 'salt' + salt, 30000, 32, 'sha256', (error, key) => {
    zlib.gzip(key.toString('hex').repeat(3000), (error2, packed) => {
      zlib.gunzip(packed, (error3, text) =>
        resolve(crypto.createHash('md5').update(text).digest('hex')));
    });
  });
});

const throughLoopback = () => new Promise((resolve) => {
  const server = net.createServer((peer) => peer.pipe(peer)).listen(0, '127.0.0.1', () => {
    let received = 0;
    const peer = net.connect(server.address().port, '127.0.0.1', () => {
      peer.end(Buffer.alloc(2000000, 7));
    });
    peer.on('data', (piece) => { received += piece.length; });
    peer.on('end', () => { server.close(); resolve(received); });
  });
});

async function main() {
  const range = (n) => [...Array(n).keys()];
  for (let round = 0; round < 3; ++round) {
    console.log(await Promise.all(range(4).map((n) => inWorker(n + 10 * round))));
  }
  console.log(await Promise.all(range(24).map(inPool)));
  console.log(await throughLoopback());
  console.log(range(5).map((n) =>
    childProcess.execFileSync(process.execPath, ['-p', String(n) + '*6']).toString()));
}

if (isMainThread) {
  main();
} else {
  parentPort.postMessage(churn(workerData));
}
