import type { ItemName } from '../control/messages.js';
import type { ItemReadings } from '../store/item-readings.js';

/** A stretch of readings as the replay source plays it (docs/storage.md, Recordings). */
export interface Recording {
  readonly text: string;
  readonly rows: number;
  /** Readings that the form cannot hold, such as half a step. */
  readonly leftOut: number;
}

interface Column {
  readonly name: string;
  readonly item: ItemName;
  readonly value: string;
  readonly isWhole?: boolean;
  /** It never goes down but where the pedometer begins anew. */
  readonly isCounter?: boolean;
}

const COLUMNS: readonly Column[] = [
  { name: 'heart_rate', item: 'heart_rate', value: 'hrm/heart_rate', isWhole: true },
  ...(['total_steps', 'walk_steps', 'run_steps'] as const).map((name): Column => ({
    name,
    item: 'pedometer',
    value: `pedometer/${name}`,
    isWhole: true,
    isCounter: true,
  })),
  { name: 'distance_m', item: 'pedometer', value: 'pedometer/distance', isCounter: true },
  { name: 'calories_kcal', item: 'pedometer', value: 'pedometer/calories', isCounter: true },
  { name: 'speed', item: 'pedometer', value: 'pedometer/speed' },
  { name: 'activity', item: 'activity', value: 'activity/status', isWhole: true },
  { name: 'gesture', item: 'gesture', value: 'motion/action', isWhole: true },
  { name: 'peak_to_peak', item: 'heart_rate', value: 'hrm/peak_to_peak' },
  { name: 'spo2', item: 'heart_rate', value: 'hrm/spo2' },
  { name: 'activity_accuracy', item: 'activity', value: 'activity/accuracy', isWhole: true },
];
/** Those of one instant come in this order. */
const ITEMS: readonly ItemName[] = ['heart_rate', 'pedometer', 'activity', 'gesture'];

/** @param from - seconds since 1970; `to` is not part of it */
export function toRecording(
  of: (item: ItemName) => ItemReadings,
  from: number,
  to: number,
): Recording {
  const found = ITEMS.flatMap((item) => {
    const readings = of(item);
    const columns = COLUMNS.filter((column) => column.item === item);
    const values = columns.map((column) => readings.column(column.value));
    const begin = readings.indexOf(from);
    return [...readings.times.subarray(begin, readings.indexOf(to))].map((time, index) => ({
      time,
      cells: new Map(
        columns.map((column, at) => [column, values[at]?.[begin + index] ?? NaN] as const),
      ),
    }));
  }).sort((one, other) => one.time - other.time);
  const start = found[0]?.time ?? from;
  const pedometer = new PedometerMarks();
  const lines: string[] = [];
  for (const { time, cells } of found) {
    const told = [...cells].filter(([, value]) => !Number.isNaN(value));
    if (told.length === 0 || !told.every(fits)) {
      continue;
    }
    const row = COLUMNS.map((column) => plainText(cells.get(column) ?? NaN));
    lines.push(
      [Math.round(1000 * (time - start)), ...row, pedometer.take(new Map(told))].join(','),
    );
  }
  const head = [
    '# recording: what a browser was told of a running service',
    `# start_epoch_s: ${Math.floor(start)}`,
    '# tz: +00:00 (start_epoch_s is UTC)',
    ['t_ms', ...COLUMNS.map(({ name }) => name), 'restart'].join(','),
  ];
  return {
    text: `${[...head, ...lines].join('\n')}\n`,
    rows: lines.length,
    leftOut: found.length - lines.length,
  };
}

/** What stands in the column `restart`. */
class PedometerMarks {
  readonly #last = new Map<Column, number>();
  #told: readonly Column[] = [];

  take(told: ReadonlyMap<Column, number>): '' | '1' | '2' {
    const columns = [...told.keys()].filter(({ item }) => item === 'pedometer');
    if (columns.length === 0) {
      return '';
    }
    const isAnew = columns.some(
      (column) =>
        column.isCounter === true && (told.get(column) ?? 0) < (this.#last.get(column) ?? 0),
    );
    const forgets = this.#told.some((column) => !told.has(column));
    if (isAnew) {
      this.#last.clear();
    }
    columns.forEach((column) => this.#last.set(column, told.get(column) ?? 0));
    this.#told = columns;
    return isAnew ? '1' : forgets ? '2' : '';
  }
}

function fits([column, value]: readonly [Column, number]): boolean {
  return (
    Number.isFinite(value) &&
    (column.isWhole !== true || Number.isInteger(value)) &&
    (column.isCounter !== true || value >= 0)
  );
}

/** A number without an exponent; empty for none. */
function plainText(value: number): string {
  if (Number.isNaN(value)) {
    return '';
  }
  const text = String(value);
  return text.includes('e') ? value.toFixed(12).replace(/\.?0+$/, '') : text;
}
