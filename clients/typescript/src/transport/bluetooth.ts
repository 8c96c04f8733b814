/**
 * The road over Bluetooth Low Energy, for browsers that have Web Bluetooth: one attribute value is one packet.
 *
 * @module
 */
import { errorText } from '../error-text.js';
import type { Link, LinkEvents, Transport } from './transport.js';

/** The UUID of the service. */
export const LINK_SERVICE = '6a1c0001-5b0e-4f0c-9d5a-7f1d2c8e43b7';
/** The UUID of the characteristic that is written, with packets to the watch. */
export const TO_WATCH = '6a1c0002-5b0e-4f0c-9d5a-7f1d2c8e43b7';
/** The UUID of the characteristic that notifies, with packets from the watch. */
export const FROM_WATCH = '6a1c0003-5b0e-4f0c-9d5a-7f1d2c8e43b7';

/** What is used of a Web Bluetooth characteristic. */
export interface CharacteristicLike extends EventTarget {
  readonly value?: DataView | undefined;
  startNotifications(): Promise<unknown>;
  writeValueWithResponse(value: Uint8Array): Promise<void>;
}

/** What is used of a Web Bluetooth device. */
export interface BluetoothDeviceLike extends EventTarget {
  readonly gatt?: {
    connect(): Promise<{
      getPrimaryService(service: string): Promise<{
        getCharacteristic(characteristic: string): Promise<CharacteristicLike>;
      }>;
    }>;
    disconnect(): void;
  };
}

/** What is used of `navigator.bluetooth`. */
export interface BluetoothLike {
  requestDevice(options: { filters: { services: string[] }[] }): Promise<BluetoothDeviceLike>;
}

/** Links to a watch in radio range. The first one has the browser pair with it. */
export class BluetoothTransport implements Transport {
  readonly #device: BluetoothDeviceLike;

  /** @param device - of the watch, as a browser gives it */
  constructor(device: BluetoothDeviceLike) {
    this.#device = device;
  }

  /**
   * Has the person choose a watch. To be called within the handler of a click or a key, as browsers demand.
   *
   * @throws Error in a browser without Web Bluetooth; DOMException "NotFoundError" when none was chosen
   */
  static async choose(): Promise<BluetoothTransport> {
    const { bluetooth } = navigator as { bluetooth?: BluetoothLike };
    if (!bluetooth) {
      throw new Error('this browser has no Web Bluetooth');
    }
    return new BluetoothTransport(
      await bluetooth.requestDevice({ filters: [{ services: [LINK_SERVICE] }] }),
    );
  }

  open(events: LinkEvents): Link {
    return new BluetoothLink(this.#device, events);
  }
}

class BluetoothLink implements Link {
  readonly #device: BluetoothDeviceLike;
  readonly #events: LinkEvents;
  readonly #onLost = () => {
    this.#end('the Bluetooth connection is gone');
  };
  readonly #onValue = () => {
    this.#take();
  };
  #toWatch: CharacteristicLike | undefined;
  #fromWatch: CharacteristicLike | undefined;
  #sent: Promise<void> = Promise.resolve(); // a browser takes one write at a time
  #isOver = false;

  constructor(device: BluetoothDeviceLike, events: LinkEvents) {
    this.#device = device;
    this.#events = events;
    device.addEventListener('gattserverdisconnected', this.#onLost);
    this.#connect().catch((error: unknown) => {
      this.#end(`no Bluetooth connection: ${errorText(error)}`);
    });
  }

  send(packet: Uint8Array): void {
    this.#sent = this.#sent
      .then(() => (this.#isOver ? undefined : this.#toWatch?.writeValueWithResponse(packet)))
      .catch((error: unknown) => {
        this.#end(`the watch could not be written to: ${errorText(error)}`);
      });
  }

  close(): void {
    this.#isOver = true;
    this.#device.removeEventListener('gattserverdisconnected', this.#onLost);
    this.#fromWatch?.removeEventListener('characteristicvaluechanged', this.#onValue);
    this.#device.gatt?.disconnect();
  }

  async #connect(): Promise<void> {
    const server = await this.#device.gatt?.connect();
    if (!server) {
      throw new Error('the device has no GATT server');
    }
    const service = await server.getPrimaryService(LINK_SERVICE);
    this.#toWatch = await service.getCharacteristic(TO_WATCH);
    this.#fromWatch = await service.getCharacteristic(FROM_WATCH);
    if (!this.#isOver) {
      this.#fromWatch.addEventListener('characteristicvaluechanged', this.#onValue);
      await this.#fromWatch.startNotifications();
      this.#opened();
    }
  }

  #opened(): void {
    if (!this.#isOver) {
      this.#events.opened();
    }
  }

  #take(): void {
    const value = this.#fromWatch?.value;
    if (value && !this.#isOver) {
      // The browser may use the buffer again.
      this.#events.packet(new Uint8Array(value.buffer, value.byteOffset, value.byteLength).slice());
    }
  }

  #end(why: string): void {
    if (!this.#isOver) {
      this.close();
      this.#events.closed(why);
    }
  }
}
