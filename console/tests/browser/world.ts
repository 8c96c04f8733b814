// A service and a gateway of their own, with a browser that looks at them.
import { execFile, spawn, type ChildProcess } from 'node:child_process';
import { existsSync, mkdirSync, mkdtempSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';

import { chromium, type Browser, type BrowserContext, type Page } from 'playwright-core';
import { it, vi } from 'vitest';
import { WebSocket } from 'ws';

export const TREE = fileURLToPath(new URL('../../..', import.meta.url));
const BUILD = process.env['PARVANE_BUILD'] ?? `${TREE}build/dev`; // with the programs
const PROGRAMS = {
  service: `${BUILD}/src/service/parvane`,
  gateway: `${BUILD}/gateway/parvane-gateway`,
  control: `${BUILD}/watch/parvane-watch`,
};
const CHROMIUM = process.env['PARVANE_CHROMIUM'] ?? '/usr/bin/chromium';
/** What the tests cannot do without and is not there. */
export const MISSING = [...Object.values(PROGRAMS), CHROMIUM].filter((path) => !existsSync(path));
export const SEEN = `${TREE}build/console`; // pictures of the page
/** A loaded machine has so long for whatever takes a moment. */
export const PATIENCE = { timeout: 30_000, interval: 50 };

const run = promisify(execFile);

export class World {
  readonly folder = mkdtempSync(`${tmpdir()}/parvane-console-`);
  readonly #config = `${this.folder}/gateway.conf`;
  readonly #processes: ChildProcess[] = [];
  readonly #serviceEnvironment: Record<string, string> | undefined;
  service: ChildProcess | undefined;
  gateway: ChildProcess | undefined;
  port = 0;

  /**
   * @param environment - of the service, such as PARVANE_TRACE; without it there is none
   * @param sensors - its platform.conf
   */
  constructor(environment?: Record<string, string>, sensors = '') {
    for (const name of ['state', 'run', 'gateway-state', 'gateway-run']) {
      mkdirSync(`${this.folder}/${name}`, { mode: 0o700 });
    }
    writeFileSync(`${this.folder}/platform.conf`, sensors);
    this.#serviceEnvironment = environment;
    this.#writeConfig(0);
  }

  get url(): string {
    return `http://127.0.0.1:${this.port}`;
  }

  async start(): Promise<void> {
    await Promise.all([this.#serviceEnvironment && this.startService(), this.startGateway()]);
  }

  async startService(): Promise<void> {
    this.service = this.#spawn(PROGRAMS.service, [], {
      STATE_DIRECTORY: `${this.folder}/state`,
      RUNTIME_DIRECTORY: `${this.folder}/run`,
      PARVANE_PLATFORM_CONF: `${this.folder}/platform.conf`,
      PARVANE_BT_ADDRESS: 'AA:BB:CC:DD:EE:0F',
      ...this.#serviceEnvironment,
    });
    await vi.waitFor(() => this.control('status'), PATIENCE);
  }

  /** On the port that it had before, if it had one. */
  async startGateway(): Promise<void> {
    this.gateway = this.#spawn(PROGRAMS.gateway, ['--config', this.#config]);
    this.port = await vi.waitFor(async () => {
      const status = JSON.parse(await this.ask('status', '--json')) as {
        roads: { web: { port: number } };
      };
      return status.roads.web.port;
    }, PATIENCE);
    this.#writeConfig(this.port);
  }

  /** A new token, when the gateway knows it. */
  async token(name: string, scope = 'console'): Promise<string> {
    const words = ['token', 'add', name, '--scope', scope, '--json'];
    const { token } = JSON.parse(await this.ask(...words)) as { token: string };
    const headers = { Authorization: `Bearer ${token}` };
    await vi.waitFor(async () => {
      const { status } = await fetch(`${this.url}/session`, { method: 'POST', headers });
      if (status !== 204) {
        throw new Error(`the gateway answers ${status}`);
      }
    }, PATIENCE);
    return token;
  }

  /** A command of parvane-gateway. */
  async ask(...words: string[]): Promise<string> {
    return (await run(PROGRAMS.gateway, ['--config', this.#config, ...words])).stdout;
  }

  /** A command of parvane-watch. */
  async control(...words: string[]): Promise<string> {
    const socket = `${this.folder}/run/control.sock`;
    return (await run(PROGRAMS.control, ['--socket', socket, ...words])).stdout;
  }

  /** What an observer without a page is told, each message as it comes. */
  observe(token: string, take: (message: Record<string, unknown>) => void): WebSocket {
    const headers = { Authorization: `Bearer ${token}` };
    const socket = new WebSocket(`ws://127.0.0.1:${this.port}/control`, 'parvane.control.v1', {
      headers,
    });
    socket.on('open', () => {
      socket.send('{"request":"observe"}');
    });
    socket.on('message', (data: Buffer) => {
      take(JSON.parse(data.toString()) as Record<string, unknown>);
    });
    return socket;
  }

  async end(): Promise<void> {
    for (const process of this.#processes) {
      process.kill('SIGCONT');
      await endOf(process, 'SIGTERM');
    }
    rmSync(this.folder, { recursive: true });
  }

  #writeConfig(port: number): void {
    writeFileSync(
      this.#config,
      `[watch]\ndirectory=${this.folder}/run\n[web]\nport=${port}\n[bluetooth]\nenabled=no\n` +
        `[directories]\nstate=${this.folder}/gateway-state\nruntime=${this.folder}/gateway-run\n`,
    );
  }

  #spawn(program: string, words: string[], environment = {}): ChildProcess {
    const child = spawn(program, words, {
      env: { PATH: process.env['PATH'], TZ: 'UTC', ...environment },
      stdio: 'ignore',
    });
    this.#processes.push(child);
    return child;
  }
}

/** The recorded run, again and again. */
export function recordedRun(): World {
  return new World({ PARVANE_TRACE: `${TREE}recordings/rest-then-run-49s-1hz.csv` });
}

/** Names the tests that could not run, and why. */
export function skippedWithout(title: string): void {
  if (MISSING.length > 0) {
    it(title, (context) => {
      context.skip(`not there: ${MISSING.join(', ')}`);
    });
  }
}

export async function endOf(
  child: ChildProcess | undefined,
  signal: NodeJS.Signals,
): Promise<void> {
  if (child?.exitCode === null && child.signalCode === null) {
    const ended = new Promise((resolve) => child.once('exit', resolve));
    child.kill(signal);
    await ended;
  }
}

export function launch(): Promise<Browser> {
  return chromium.launch({
    executablePath: CHROMIUM,
    args: ['--no-sandbox', '--disable-gpu', '--disable-dev-shm-usage'],
  });
}

/** What went wrong in a page, and whom it asked. */
export interface Watched {
  readonly page: Page;
  readonly problems: string[];
  readonly hosts: Set<string>;
}

export async function newPage(context: BrowserContext): Promise<Watched> {
  const page = await context.newPage();
  page.setDefaultTimeout(PATIENCE.timeout);
  const problems: string[] = [];
  const hosts = new Set<string>();
  page.on('pageerror', (error) => problems.push(String(error)));
  page.on('console', (message) => {
    // That a connection was refused is said by the browser itself.
    if (message.type() === 'error' && !/WebSocket|Failed to load resource/.test(message.text())) {
      problems.push(message.text());
    }
  });
  page.on('request', (request) => hosts.add(new URL(request.url()).host));
  return { page, problems, hosts };
}
