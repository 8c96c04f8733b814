// The pages: examples that compile, and numbers that others write down.
import { readFileSync } from 'node:fs';
import { fileURLToPath } from 'node:url';

import ts from 'typescript';
import { expect, it } from 'vitest';

import { FROM_WATCH, LINK_PROTOCOL, LINK_SERVICE, TO_WATCH } from '../src/index.js';

const FOLDER = fileURLToPath(new URL('..', import.meta.url));

function read(page: string): string {
  return readFileSync(`${FOLDER}/${page}`, 'utf8');
}

it('the examples of the README compile', () => {
  const blocks = [...read('README.md').matchAll(/```ts\n(.*?)```/gs)].map(([, code = '']) => code);
  expect(blocks.length).toBeGreaterThan(5);
  const files = new Map(blocks.map((code, i) => [`${FOLDER}examples/readme-${i}.mts`, code]));

  const options: ts.CompilerOptions = {
    ...ts.convertCompilerOptionsFromJson(
      (JSON.parse(read('tsconfig.json')) as { compilerOptions: unknown }).compilerOptions,
      FOLDER,
    ).options,
    paths: { '@parvane/client': [`${FOLDER}src/index.ts`] },
  };
  const disk = ts.createCompilerHost(options);
  const host: ts.CompilerHost = {
    ...disk,
    fileExists: (name) => files.has(name) || disk.fileExists(name),
    readFile: (name) => files.get(name) ?? disk.readFile(name),
    getSourceFile: (name, ...rest) => {
      const code = files.get(name);
      return code === undefined
        ? disk.getSourceFile(name, ...rest)
        : ts.createSourceFile(name, code, ts.ScriptTarget.ES2022);
    },
  };
  const program = ts.createProgram([...files.keys()], options, host);
  expect(ts.formatDiagnostics(ts.getPreEmitDiagnostics(program), host)).toBe('');
}, 60_000);

it('what travels on the roads is what the page on transports says', () => {
  const page = read('../../docs/transports.md');
  for (const [what, uuid] of [
    ['service', LINK_SERVICE],
    ['characteristic "to the watch"', TO_WATCH],
    ['characteristic "from the watch"', FROM_WATCH],
  ]) {
    expect(page).toContain(`| ${what} | \`${uuid}\` |`);
  }
  expect(page).toContain(`| subprotocol | \`${LINK_PROTOCOL}\``);
  for (const code of [
    '1001 | the gateway ends',
    '4401 | the token has ended',
    '4409 | another phone',
    '4503 | the watch is away',
  ]) {
    expect(page).toContain(`| ${code}`);
  }
});
