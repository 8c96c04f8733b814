/**
 * Time zones, as the ledger needs them.
 *
 * @module
 */

/** How many seconds local time is ahead of UTC at an instant, in seconds since 1970-01-01 UTC. */
export type ZoneOffset = (utcSeconds: number) => number;

/** The zone that this program runs in. */
export function systemZone(utcSeconds: number): number {
  return 0 - 60 * new Date(1000 * utcSeconds).getTimezoneOffset();
}

/**
 * The zone of a name such as "Europe/Berlin", with its changes of summer time.
 *
 * @throws RangeError for a name that this machine does not know
 */
export function namedZone(name: string): ZoneOffset {
  const format = new Intl.DateTimeFormat('en-US', {
    timeZone: name,
    hourCycle: 'h23',
    year: 'numeric',
    month: 'numeric',
    day: 'numeric',
    hour: 'numeric',
    minute: 'numeric',
    second: 'numeric',
  });
  return (utcSeconds) => {
    const whole = Math.floor(utcSeconds);
    const parts: Partial<Record<Intl.DateTimeFormatPartTypes, number>> = {};
    for (const { type, value } of format.formatToParts(1000 * whole)) {
      parts[type] = Number(value);
    }
    const { year = 0, month = 1, day = 1, hour = 0, minute = 0, second = 0 } = parts;
    return Date.UTC(year, month - 1, day, hour, minute, second) / 1000 - whole;
  };
}

/** The local date of an instant, as "2026-03-14". */
export function localDate(zone: ZoneOffset, instantMs: number): string {
  const second = Math.floor(instantMs / 1000);
  return new Date(1000 * (second + zone(second))).toISOString().slice(0, 10);
}
