// The client against the real gateway and the real service, where they are built.
import { execFile, spawn, type ChildProcess } from 'node:child_process';
import { existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { fileURLToPath } from 'node:url';
import { promisify } from 'node:util';

import { afterAll, afterEach, beforeAll, describe, expect, it, vi } from 'vitest';
import { WebSocket } from 'ws';

import { Sensor, signIn, Watch, WebSocketTransport } from '../src/index.js';
import { textOf } from './played-session.js';

const TREE = fileURLToPath(new URL('../../..', import.meta.url));
const BUILD = process.env['PARVANE_BUILD'] ?? `${TREE}build/dev`; // with the programs
const PROGRAMS = {
  service: `${BUILD}/src/service/parvane`,
  gateway: `${BUILD}/gateway/parvane-gateway`,
  control: `${BUILD}/watch/parvane-watch`,
};
const missing = Object.values(PROGRAMS).filter((program) => !existsSync(program));
const PATIENCE = { timeout: 20_000, interval: 20 };

const run = promisify(execFile);

/** Everything in a folder of its own, on a port of its own. */
class World {
  readonly folder = mkdtempSync(`${tmpdir()}/parvane-typescript-`);
  readonly #config = `${this.folder}/gateway.conf`;
  readonly #processes: ChildProcess[] = [];
  service: ChildProcess | undefined;
  gateway: ChildProcess | undefined;
  url = '';
  token = '';

  constructor() {
    for (const name of ['state', 'run', 'gateway-state', 'gateway-run']) {
      mkdirSync(`${this.folder}/${name}`, { mode: 0o700 });
    }
    writeFileSync(
      `${this.folder}/platform.conf`,
      '[sensors]\nheart_rate=manual\npedometer=manual\nactivity=manual\n',
    );
    writeFileSync(
      this.#config,
      `[watch]\ndirectory=${this.folder}/run\n[web]\nport=0\n[bluetooth]\nenabled=no\n` +
        `[directories]\nstate=${this.folder}/gateway-state\nruntime=${this.folder}/gateway-run\n`,
    );
  }

  async startService(): Promise<void> {
    this.service = this.#spawn(PROGRAMS.service, [], {
      STATE_DIRECTORY: `${this.folder}/state`,
      RUNTIME_DIRECTORY: `${this.folder}/run`,
      PARVANE_PLATFORM_CONF: `${this.folder}/platform.conf`,
      PARVANE_BT_ADDRESS: 'AA:BB:CC:DD:EE:0F',
    });
    await vi.waitFor(() => this.set('hr', '72'), PATIENCE);
  }

  async startGateway(): Promise<void> {
    this.gateway = this.#spawn(PROGRAMS.gateway, ['--config', this.#config]);
    const port = await vi.waitFor(async () => {
      const status = JSON.parse(await this.#ask('status', '--json')) as {
        roads: { web: { port: number } };
      };
      return status.roads.web.port;
    }, PATIENCE);
    this.url = `ws://127.0.0.1:${port}/link`;
    const { token } = JSON.parse(await this.#ask('token', 'add', 'test', '--json')) as {
      token: string;
    };
    this.token = token;
    // The gateway looks at its tokens when they have changed; the command does not wait for that.
    await vi.waitFor(() => signIn(this.url.replace('ws:', 'http:'), token), PATIENCE);
  }

  async set(...words: string[]): Promise<void> {
    await run(PROGRAMS.control, ['--socket', `${this.folder}/run/control.sock`, 'set', ...words]);
  }

  /** A phone with the token; what it is told goes to `log`. */
  phone(log: string[], url = this.url): Watch {
    const headers = { Authorization: `Bearer ${this.token}` };
    const ca = existsSync(this.certificate) ? readFileSync(this.certificate) : undefined;
    const create = (address: string, protocol: string) =>
      new WebSocket(address, protocol, { headers, ...(ca ? { ca } : {}) });
    const watch = new Watch(new WebSocketTransport(url, { create }));
    watch.listen((event) => log.push(textOf(event)));
    return watch;
  }

  get certificate(): string {
    return `${this.folder}/gateway-state/certificate.pem`;
  }

  async end(): Promise<void> {
    for (const process of this.#processes) {
      await endOf(process);
    }
    rmSync(this.folder, { recursive: true });
  }

  async #ask(...words: string[]): Promise<string> {
    return (await run(PROGRAMS.gateway, ['--config', this.#config, ...words])).stdout;
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

async function endOf(child: ChildProcess | undefined): Promise<void> {
  if (child?.exitCode === null && child.signalCode === null) {
    const ended = new Promise((resolve) => child.once('exit', resolve));
    child.kill('SIGTERM');
    await ended;
  }
}

describe.skipIf(missing.length > 0)('the real gateway', () => {
  let world: World;
  let log: string[];
  let watch: Watch;

  beforeAll(async () => {
    world = new World();
    await world.startService();
    await world.startGateway();
  }, 30_000);

  afterAll(async () => {
    await world.end();
  });

  afterEach(() => {
    watch.close();
  });

  function start(url?: string): void {
    log = [];
    watch = world.phone(log, url);
  }

  function expectLog(line: string): Promise<void> {
    return vi.waitFor(() => {
      expect(log).toContain(line);
    }, PATIENCE);
  }

  it('lists the sensors of the watch, and its address', async () => {
    start();
    const { header, entries } = await watch.list();
    expect(header.address).toBe('AA:BB:CC:DD:EE:0F');
    expect(entries.map(({ sensor, delayMs }) => [sensor, delayMs])).toEqual([
      [Sensor.Activity, 5000],
      [Sensor.Pedometer, 300_000],
      [Sensor.HeartRate, 15_000],
      [Sensor.WearState, 1000],
    ]);
  });

  it('does so over TLS', async () => {
    start(world.url.replace('ws://127.0.0.1', 'wss://localhost'));
    expect((await watch.list()).entries).toHaveLength(4);
  });

  it('measures whether the watch is worn, and follows the activity', async () => {
    start();
    const worn = watch.measure(Sensor.WearState);
    watch.follow(Sensor.Activity);
    await vi.waitFor(async () => {
      await world.set('hr', '72');
      expect(watch.latest(Sensor.WearState)?.value).toBe(1);
    }, PATIENCE);
    expect((await worn).observation.text(Date.now())).toMatch(/^worn, \d s ago$/);
    await world.set('activity', 'running');
    await expectLog('activity 2');
    expect(watch.latest(Sensor.Activity)?.text(Date.now())).toMatch(/^running, \d s ago, worn$/);
  });

  it('counts the steps really walked, through a lost link', async () => {
    start();
    watch.follow(Sensor.Pedometer);
    await world.set('steps', '+0');
    await vi.waitFor(() => {
      expect(watch.steps.wantsQuestion).toBe(false);
    }, PATIENCE);
    for (const step of [10, 15]) {
      const { length } = log;
      await world.set('steps', `+${step}`);
      await vi.waitFor(() => {
        expect(log.length).toBeGreaterThan(length);
      }, PATIENCE);
    }
    expect(watch.stepsToday().steps).toMatchObject({ steps: 25, isExact: true });
  });

  it('tells the second phone why it cannot be the phone', async () => {
    start();
    await watch.list();
    const second: string[] = [];
    const other = world.phone(second);
    await vi.waitFor(() => {
      expect(second[0]).toBe('attempt failed: another phone is connected, 100 ms');
    }, PATIENCE);
    watch.close();
    await vi.waitFor(() => {
      expect(second).toContain('linked');
    }, PATIENCE);
    other.close();
  });

  it('tells that the service is down, and goes on when it is back', async () => {
    start();
    watch.follow(Sensor.Activity);
    await expectLog('linked');
    await endOf(world.service);
    await expectLog("lost: the watch's service is down");
    await world.startService();
    await vi.waitFor(() => {
      expect(log.filter((line) => line === 'linked')).toHaveLength(2);
    }, PATIENCE);
    await world.set('activity', 'walking');
    await expectLog('activity 1');
  }, 30_000);

  it('serves the example', async () => {
    const example = fileURLToPath(new URL('../examples/follow.mjs', import.meta.url));
    start();
    watch.close();
    const child = spawn(process.execPath, [example, world.url, world.token]);
    let output = '';
    child.stdout.on('data', (data: Buffer) => (output += data.toString()));
    child.stderr.on('data', (data: Buffer) => (output += data.toString()));
    await vi.waitFor(() => {
      expect(output).toMatch(/^linked\n/m);
      expect(output).toMatch(/^\d+ steps on \d+-\d+-\d+, exact$/m);
    }, PATIENCE);
    child.kill('SIGINT');
    await vi.waitFor(() => {
      expect(child.exitCode).toBe(0);
    }, PATIENCE);
  }, 30_000);

  it('tells that the gateway ends', async () => {
    start();
    await expectLog('linked');
    await endOf(world.gateway);
    await expectLog('lost: the gateway has ended');
  });
});

if (missing.length > 0) {
  it('the real gateway is built', (context) => {
    context.skip(`not built: ${missing.join(', ')}`);
  });
}
