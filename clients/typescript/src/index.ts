/**
 * The phone's side of a Parvane watch.
 *
 * @module
 */
export * from './messages.js';
export { decode, DecodeError, encode, MAX_MESSAGE_BYTES } from './codec.js';
export { StepLedger, type DaySteps, type StepsOfDay, type StepTotal } from './ledger.js';
export { Observation, Observations, WORN_HOLDS_MS, type Worn } from './observation.js';
export { localDate, namedZone, systemZone, type ZoneOffset } from './zone.js';
export {
  answerTimeoutMs,
  Session,
  type AttemptFailed,
  type Failed,
  type Failure,
  type Linked,
  type Lost,
  type Moment,
  type NewList,
  type NewReading,
  type Nonsense,
  type RequestId,
  type SensorList,
  type SessionEvent,
  type SessionOptions,
  type Stopped,
} from './session.js';
export { Watch, WatchError, type Listener, type WatchOptions } from './watch.js';
export type { Link, LinkEvents, Transport } from './transport/transport.js';
export {
  LINK_PROTOCOL,
  signIn,
  WebSocketTransport,
  type WebSocketLike,
  type WebSocketOptions,
} from './transport/websocket.js';
export {
  BluetoothTransport,
  FROM_WATCH,
  LINK_SERVICE,
  TO_WATCH,
  type BluetoothDeviceLike,
  type BluetoothLike,
  type CharacteristicLike,
} from './transport/bluetooth.js';
