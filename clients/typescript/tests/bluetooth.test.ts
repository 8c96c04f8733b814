import { afterEach, beforeEach, describe, expect, it, vi } from 'vitest';

import {
  BluetoothTransport,
  FROM_WATCH,
  LINK_SERVICE,
  TO_WATCH,
  type BluetoothDeviceLike,
  type CharacteristicLike,
  type Link,
} from '../src/index.js';
import { fromHex, toHex } from './vectors.js';

class Characteristic extends EventTarget implements CharacteristicLike {
  value: DataView | undefined;
  notifies = false;
  isWriting = false;
  readonly written: string[] = [];
  writeError: Error | undefined;

  startNotifications(): Promise<void> {
    this.notifies = true;
    return Promise.resolve();
  }

  async writeValueWithResponse(value: Uint8Array): Promise<void> {
    if (this.isWriting) {
      throw new Error('GATT operation already in progress.');
    }
    this.isWriting = true;
    await new Promise((resolve) => setTimeout(resolve, 1));
    this.isWriting = false;
    if (this.writeError) {
      throw this.writeError;
    }
    this.written.push(toHex(value));
  }

  notify(hex: string): void {
    const bytes = fromHex(`FF ${hex}`);
    this.value = new DataView(bytes.buffer, 1);
    this.dispatchEvent(new Event('characteristicvaluechanged'));
    bytes.fill(0);
  }
}

class Device extends EventTarget implements BluetoothDeviceLike {
  readonly characteristics = {
    [TO_WATCH]: new Characteristic(),
    [FROM_WATCH]: new Characteristic(),
  };
  connectError: Error | undefined;
  disconnects = 0;

  readonly gatt = {
    connect: () =>
      this.connectError
        ? Promise.reject(this.connectError)
        : Promise.resolve({ getPrimaryService: (service: string) => this.#service(service) }),
    disconnect: () => {
      this.disconnects += 1;
    },
  };

  #service(service: string) {
    if (service !== LINK_SERVICE) {
      return Promise.reject(new Error(`no service ${service}`));
    }
    return Promise.resolve({
      getCharacteristic: (name: string) =>
        Promise.resolve(this.characteristics[name as typeof TO_WATCH]),
    });
  }
}

describe('BluetoothTransport', () => {
  let device: Device;
  let log: string[];

  beforeEach(() => {
    device = new Device();
    log = [];
  });

  afterEach(() => {
    vi.unstubAllGlobals();
  });

  function open(of: BluetoothDeviceLike = device): Link {
    const mine = log; // not that of the next test
    return new BluetoothTransport(of).open({
      opened: () => mine.push('opened'),
      packet: (bytes) => mine.push(toHex(bytes)),
      closed: (why) => mine.push(`closed: ${why}`),
    });
  }

  async function expectLog(...lines: string[]): Promise<void> {
    await vi.waitFor(() => {
      expect(log).toEqual(lines);
    });
  }

  it('takes each value that is notified for a packet', async () => {
    open();
    await expectLog('opened');
    expect(device.characteristics[FROM_WATCH].notifies).toBe(true);
    device.characteristics[FROM_WATCH].notify('14 02 00 01');
    device.characteristics[FROM_WATCH].notify('25 00 02 01');
    await expectLog('opened', '14 02 00 01', '25 00 02 01');
  });

  it('writes one packet after another', async () => {
    const link = open();
    await expectLog('opened');
    link.send(fromHex('14 00 00 01'));
    link.send(fromHex('23 00 00 01 00'));
    await vi.waitFor(() => {
      expect(device.characteristics[TO_WATCH].written).toEqual(['14 00 00 01', '23 00 00 01 00']);
    });
    expect(log).toEqual(['opened']);
  });

  it('ends when the device is gone', async () => {
    open();
    await expectLog('opened');
    device.dispatchEvent(new Event('gattserverdisconnected'));
    device.dispatchEvent(new Event('gattserverdisconnected'));
    device.characteristics[FROM_WATCH].notify('14 02 00 01');
    await expectLog('opened', 'closed: the Bluetooth connection is gone');
  });

  it('ends when it cannot be written', async () => {
    const link = open();
    await expectLog('opened');
    device.characteristics[TO_WATCH].writeError = new Error('GATT Error: Not Authorized.');
    link.send(fromHex('14 00 00 01'));
    link.send(fromHex('14 00 00 01'));
    await expectLog(
      'opened',
      'closed: the watch could not be written to: GATT Error: Not Authorized.',
    );
    expect(device.disconnects).toBe(1);
  });

  it('says why there is no connection', async () => {
    device.connectError = new Error('Bluetooth Device is no longer in range.');
    open();
    await expectLog('closed: no Bluetooth connection: Bluetooth Device is no longer in range.');
    log = [];
    open(new EventTarget());
    await expectLog('closed: no Bluetooth connection: the device has no GATT server');
  });

  it('is silent when it was closed, also while it connects', async () => {
    open().close();
    await new Promise((resolve) => setTimeout(resolve, 5));
    expect(log).toEqual([]);
    expect(device.disconnects).toBe(1);
    expect(device.characteristics[FROM_WATCH].notifies).toBe(false);
  });

  it('has the person choose a watch', async () => {
    const requestDevice = vi.fn(() => Promise.resolve(device));
    vi.stubGlobal('navigator', { bluetooth: { requestDevice } });
    const transport = await BluetoothTransport.choose();
    expect(requestDevice).toHaveBeenCalledWith({ filters: [{ services: [LINK_SERVICE] }] });
    transport.open({ opened: () => log.push('opened'), packet: vi.fn(), closed: vi.fn() });
    await expectLog('opened');
    vi.stubGlobal('navigator', {});
    await expect(BluetoothTransport.choose()).rejects.toThrow('this browser has no Web Bluetooth');
  });
});
