// Shared by both clients. Makes the calls one after another, and prints the figures in the format of the other
// benchmark programs: name, tab, value.

import { readFileSync } from 'node:fs';
import { performance } from 'node:perf_hooks';

const WARM_UP = 20;

function print(figure, value) {
  console.log(`${figure}\t${value}`);
}

// User and system time of this process, all threads, from its start on.
function cpuMilliseconds() {
  const { user, system } = process.cpuUsage();
  return (user + system) / 1000;
}

// `makeCall` receives the service's address and returns a function that makes one call. That function throws if the
// response is not the expected one.
export async function measure(makeCall) {
  const [address, count] = process.argv.slice(2);
  const calls = Number(count);
  if (!address || !(calls > 0)) {
    throw new Error('usage: NODE_EXTRA_CA_CERTS=ca.pem node PROGRAM https://127.0.0.1:PORT CALLS');
  }
  const call = makeCall(address);
  await call();
  print('cpu_ms_first_call', cpuMilliseconds());
  print('wall_ms_first_call', performance.now()); // since the process started, as above
  for (let i = 1; i < WARM_UP; ++i) {
    await call();
  }

  const milliseconds = [];
  const cpu = cpuMilliseconds();
  for (let i = 0; i < calls; ++i) {
    const begun = performance.now();
    await call();
    milliseconds.push(performance.now() - begun);
  }
  print('cpu_us_per_request', (1000 * (cpuMilliseconds() - cpu)) / calls);
  milliseconds.sort((a, b) => a - b);
  print('wall_us_p50', 1000 * milliseconds[Math.floor(calls * 0.5)]);
  print('wall_us_p99', 1000 * milliseconds[Math.floor(calls * 0.99)]);
  print('peak_resident_bytes', process.resourceUsage().maxRSS * 1024);
  print('anonymous_bytes', 1024 * Number(/^RssAnon:\s+(\d+) kB/m.exec(readFileSync('/proc/self/status', 'utf8'))[1]));
}
