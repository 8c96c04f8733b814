import { createServer, type Server } from 'node:http';
import type { AddressInfo } from 'node:net';

import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';
import { WebSocket as NodeWebSocket, WebSocketServer, type WebSocket as Socket } from 'ws';

import {
  LINK_PROTOCOL,
  Sensor,
  signIn,
  Watch,
  WebSocketTransport,
  type WebSocketOptions,
} from '../src/index.js';
import { reading, textOf } from './played-session.js';
import { fromHex, toHex } from './vectors.js';

const create = (url: string, protocol: string) => new NodeWebSocket(url, protocol);

describe('WebSocketTransport', () => {
  let http: Server;
  let server: WebSocketServer;
  let phones: Socket[];
  let log: string[];

  beforeEach(async () => {
    log = [];
    phones = [];
    http = createServer();
    server = new WebSocketServer({ server: http });
    server.on('connection', (phone) => {
      phones.push(phone);
    });
    await new Promise<void>((resolve) => http.listen(0, '127.0.0.1', resolve));
  });

  afterEach(() => {
    phones.forEach((phone) => {
      phone.terminate();
    });
    server.close();
    http.close();
  });

  function address(scheme = 'ws'): string {
    return `${scheme}://127.0.0.1:${(http.address() as AddressInfo).port}`;
  }

  function open(options: WebSocketOptions = { create }, url = `${address()}/link`) {
    const mine = log; // not that of the next test
    return new WebSocketTransport(url, options).open({
      opened: () => mine.push('opened'),
      packet: (bytes) => mine.push(toHex(bytes)),
      closed: (why) => mine.push(`closed: ${why}`),
    });
  }

  async function phone(): Promise<Socket> {
    await vi.waitFor(() => {
      expect(log).toContain('opened');
    });
    const [first] = phones;
    if (!first) {
      throw new Error('nobody has connected');
    }
    return first;
  }

  async function expectLog(...lines: string[]): Promise<void> {
    await vi.waitFor(() => {
      expect(log).toEqual(lines);
    });
  }

  it('carries packets whole, in both directions', async () => {
    const link = open();
    const watch = await phone();
    const heard: string[] = [];
    watch.on('message', (data: Buffer, isBinary) => heard.push(`${isBinary} ${toHex(data)}`));
    link.send(fromHex('12 00 00 03'));
    link.send(fromHex('13 00 00 01 00'));
    await vi.waitFor(() => {
      expect(heard).toEqual(['true 12 00 00 03', 'true 13 00 00 01 00']);
    });
    watch.send(fromHex('14 02 00 03'));
    watch.send(fromHex('25 00 02 01'));
    await expectLog('opened', '14 02 00 03', '25 00 02 01');
    expect(watch.protocol).toBe(LINK_PROTOCOL);
  });

  it.each([
    [4401, 'away with it', 'the token has ended'],
    [4409, 'taken', 'another phone is connected'],
    [4503, 'away', "the watch's service is down"],
    [1001, '', 'the gateway has ended'],
    [1003, 'no text', 'the gateway has closed the link: no text'],
    [4000, '', 'the gateway has closed the link: 4000'],
  ])('says why it was closed with %d', async (code, reason, text) => {
    open();
    (await phone()).close(code, reason);
    await expectLog('opened', `closed: ${text}`);
  });

  it('says that the connection broke', async () => {
    open();
    (await phone()).terminate();
    await expectLog('opened', 'closed: the connection could not be made, or broke');
  });

  it('says why no connection was made', async () => {
    open({ create }, 'ws://127.0.0.1:1/link');
    await vi.waitFor(() => {
      expect(log[0]).toContain('ECONNREFUSED');
    });
    expect(log).toHaveLength(1);
  });

  it('gives a server up that does not answer', async () => {
    http.removeAllListeners('upgrade');
    http.on('upgrade', () => undefined);
    open({ create, connectTimeoutMs: 50 });
    await expectLog('closed: no connection within 0.05 s');
  });

  it('ends a link on which text comes', async () => {
    open();
    const watch = await phone();
    watch.send('{"no":"packet"}');
    await expectLog('opened', 'closed: a message that is no packet has come');
    await vi.waitFor(() => {
      expect(watch.readyState).toBe(watch.CLOSED);
    });
  });

  it('has nothing to do with a server of another protocol', async () => {
    open({ create: (url) => new NodeWebSocket(url, 'other.v1') });
    await expectLog(`closed: whoever answers there does not speak ${LINK_PROTOCOL}`);
  });

  it('closes in order, and is silent from then on', async () => {
    const link = open();
    const watch = await phone();
    const codes: number[] = [];
    watch.on('close', (code) => codes.push(code));
    link.close();
    await vi.waitFor(() => {
      expect(codes).toEqual([1000]);
    });
    expect(log).toEqual(['opened']);
  });

  it('gives an attempt up', async () => {
    open().close();
    await new Promise((resolve) => setTimeout(resolve, 50));
    expect(log).toEqual([]);
  });

  it('takes the WebSocket of the runtime where there is one', async () => {
    vi.stubGlobal('WebSocket', NodeWebSocket);
    open({});
    await expectLog('opened');
    vi.stubGlobal('WebSocket', undefined);
    expect(() => open({})).toThrow('this runtime has no WebSocket: give the option "create"');
    vi.unstubAllGlobals();
  });

  it('signs in with a token', async () => {
    http.on('request', (request, response) => {
      const { method = '', url = '', headers } = request;
      log.push(`${method} ${url} ${headers.authorization ?? ''}`);
      response.statusCode = headers.authorization === 'Bearer right' ? 204 : 401;
      response.end();
    });
    await signIn(address('http'), 'right');
    await expect(signIn(address('http'), 'wrong')).rejects.toThrow(
      'the gateway does not accept the token: 401',
    );
    expect(log).toEqual(['POST /session Bearer right', 'POST /session Bearer wrong']);
  });

  /** A watch that is answered by whoever is connected: stops at once, the heart rate is 72. */
  function serve(): void {
    server.on('connection', (socket) => {
      socket.on('message', (data: Buffer) => {
        const [first = 0, , , sensor = 0] = data;
        const isStop = (first & 0x0f) === 4;
        socket.send(isStop ? Uint8Array.of(first, 2, 0, sensor) : reading(first, sensor, 72));
      });
    });
  }

  it('serves a Watch, through a lost link', async () => {
    serve();
    const watch = new Watch(new WebSocketTransport(`${address()}/link`, { create }), {
      asksWorn: false,
    });
    watch.listen((event) => log.push(textOf(event)));
    expect((await watch.measure(Sensor.HeartRate)).reading.value).toBe(72);
    phones[0]?.close(4503);
    await vi.waitFor(() => {
      expect(log).toContain("lost: the watch's service is down");
    });
    expect((await watch.measure(Sensor.Activity)).reading.value).toBe(72);
    watch.close();
    expect(log).toEqual([
      'linked',
      'hr 72 #1',
      "lost: the watch's service is down",
      'linked',
      expect.stringMatching(/^activity 72 #/),
    ]);
  });
});
