import { createHash } from 'node:crypto';
import { fileURLToPath } from 'node:url';
import { gzipSync } from 'node:zlib';
import { readdirSync, readFileSync, rmSync, statSync, writeFileSync } from 'node:fs';

import type { Plugin } from 'vite';
import { defineConfig } from 'vite';

const client = fileURLToPath(new URL('../clients/typescript/src/index.ts', import.meta.url));
const dist = fileURLToPath(new URL('dist', import.meta.url));

/** Leaves what the gateway has built in: each file compressed, their list, and a name for the whole. */
function asResource(): Plugin {
  return {
    name: 'as-resource',
    apply: 'build',
    closeBundle() {
      const names = readdirSync(dist, { recursive: true }).map(String);
      const files = names.filter((name) => statSync(`${dist}/${name}`).isFile()).sort();
      const hash = createHash('sha256');
      for (const name of files) {
        const compressed = gzipSync(readFileSync(`${dist}/${name}`), { level: 9 });
        compressed[9] = 255; // the system that compressed it, which is nobody's business
        hash.update(name).update(compressed);
        writeFileSync(`${dist}/${name}.gz`, compressed);
        rmSync(`${dist}/${name}`);
      }
      const entries = files.map((name) => `    <file>${name}.gz</file>\n`).join('');
      writeFileSync(
        `${dist}/console.gresource.xml`,
        '<?xml version="1.0" encoding="UTF-8"?>\n<gresources>\n  <gresource prefix="/console">\n' +
          `${entries}    <file>etag</file>\n  </gresource>\n</gresources>\n`,
      );
      writeFileSync(`${dist}/etag`, `"${hash.digest('hex').slice(0, 16)}"`);
    },
  };
}

export default defineConfig({
  resolve: { alias: { '@parvane/client': client } },
  build: {
    target: 'es2022',
    assetsInlineLimit: 0, // the policy lets no data: through
    modulePreload: false,
    reportCompressedSize: false,
  },
  plugins: [asResource()],
  server: { proxy: { '^/(link|control|session)': { target: 'http://127.0.0.1:8467', ws: true } } },
});
