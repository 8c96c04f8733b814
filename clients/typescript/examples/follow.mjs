// Prints what a watch tells, and the true steps of the day, until Ctrl-C.
//
// Usage: node examples/follow.mjs ws://127.0.0.1:8467/link [TOKEN]     (npm ci && npm run build first)
import process from 'node:process';

import { Sensor, StepLedger, systemZone, Watch, WebSocketTransport } from '@parvane/client';
import WebSocket from 'ws';

const [url = 'ws://127.0.0.1:8467/link', token] = process.argv.slice(2);
const headers = token === undefined ? {} : { Authorization: `Bearer ${token}` };
const create = (address, protocol) => new WebSocket(address, protocol, { headers });

const ledger = new StepLedger(systemZone); // or StepLedger.restore(TEXT, systemZone), to go on from a day before
const watch = new Watch(new WebSocketTransport(url, { create }), { ledger });
for (const sensor of Object.values(Sensor)) {
  watch.follow(sensor);
}
process.once('SIGINT', () => watch.close());

for await (const event of watch.events()) {
  switch (event.kind) {
    case 'linked':
      console.log('linked');
      break;
    case 'lost':
    case 'attempt-failed':
    case 'failed':
      console.log(event.why.text);
      break;
    case 'reading':
      console.log(textOf(event));
      break;
  }
}

function textOf({ steps, observation }) {
  const day = steps?.steps;
  if (day) {
    return `${day.steps} steps on ${day.date}, ${day.isExact ? 'exact' : 'or more'}`;
  }
  return observation.text(Date.now());
}
