// Takes out of the lock file of this folder what names a host: where the packages come from is each machine's own
// setting.
import { readFileSync, writeFileSync } from 'node:fs';

const file = 'package-lock.json';
const lock = JSON.parse(readFileSync(file, 'utf8'));
for (const entry of Object.values(lock.packages)) {
  delete entry.resolved;
  delete entry.funding;
  delete entry.deprecated;
}
const text = `${JSON.stringify(lock, null, 2)}\n`;
if (text.includes('://')) {
  throw new Error('the lock file still names a host');
}
writeFileSync(file, text);
