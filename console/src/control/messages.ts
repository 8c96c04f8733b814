/**
 * The messages of the control socket, as docs/control.md has them.
 *
 * @module
 */

export type ItemName = 'gesture' | 'pedometer' | 'heart_rate' | 'activity';

/** A process, and since when it does what it is listed for. */
export interface Process {
  readonly pid: number;
  readonly since: string;
  readonly for_ms: number;
}

export interface Item {
  readonly item: ItemName;
  readonly number: number;
  readonly source: string;
  /** Why there can be no reading as things are. */
  readonly problem: string | null;
  readonly subscription: {
    readonly request_id: number;
    readonly since: string;
    readonly for_ms: number;
  } | null;
  readonly kept_by: readonly Process[];
  readonly last_reading: {
    readonly time: string;
    readonly age_ms: number;
    readonly values: Values;
  } | null;
  readonly delivered: number;
}

/** By their names, such as "hrm/heart_rate". */
export type Values = Readonly<Record<string, number>>;

export interface LinkStatus {
  readonly state: 'up' | 'down';
  /** The process that has taken it down or up last. */
  readonly set_by: number | null;
  readonly key: number | null;
  readonly host_state: string;
  readonly packets_in: number;
  readonly bytes_in: number;
  readonly packets_out: number;
  readonly bytes_out: number;
  readonly refused_hosts: number;
  readonly queue_full: number;
}

export interface PowerLock {
  readonly state: number;
  readonly held_by: string;
  readonly since: string;
  readonly for_ms: number;
  readonly ends: string;
  readonly ends_in_ms: number;
}

/** How recordings are played. */
export interface Replay {
  readonly files: readonly string[] | null;
  readonly length_ms: number;
  readonly position_ms: number;
  readonly speed: number;
  readonly paused: boolean;
  readonly loop: boolean;
  readonly changes: number;
}

export interface Status {
  readonly time: string;
  readonly service: {
    readonly version?: string;
    readonly pid: number;
    readonly user: number;
    readonly since: string;
    readonly for_ms: number;
  };
  readonly directories: { readonly state: string; readonly runtime: string };
  readonly host: (Process & { readonly user: number }) | null;
  readonly link: LinkStatus;
  readonly items: readonly Item[];
  readonly power_locks: readonly PowerLock[];
  readonly preferences: Readonly<Record<string, boolean | number | string>> | null;
  readonly preferences_left_out?: number;
  /** Null when no item has the source replay; undefined of a service that cannot be steered in this. */
  readonly replay?: Replay | null;
}

export interface Reply {
  readonly ok: boolean;
  readonly version: number;
  readonly error?: { readonly code: string; readonly message: string };
  readonly status?: Status;
  readonly replay?: Replay;
  /** The paths of what may be opened. */
  readonly recordings?: readonly string[];
}

/** What an observer is told. Kinds that are not known here are passed over. */
export type ObservedEvent =
  | {
      readonly event: 'reading';
      readonly item: ItemName;
      readonly time: string;
      readonly values: Values;
    }
  | { readonly event: 'item'; readonly time: string; readonly item: Item }
  | { readonly event: 'host'; readonly time: string; readonly host: Status['host'] }
  | { readonly event: 'link'; readonly time: string; readonly link: LinkStatus }
  | {
      readonly event: 'power_locks';
      readonly time: string;
      readonly power_locks: readonly PowerLock[];
    }
  | {
      readonly event: 'preferences';
      readonly time: string;
      readonly preferences: Status['preferences'];
    }
  | { readonly event: 'replay'; readonly time: string; readonly replay: Replay | null }
  | { readonly event: 'missed'; readonly count: number };

/** The value of a heart rate of a watch that is not worn. */
export const NOT_WORN = -3;
