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
