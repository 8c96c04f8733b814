/** What is drawn: as few points as show the same. `null` is a gap. */
export interface Thinned {
  readonly times: number[];
  readonly columns: (number | null)[][];
}

/**
 * Of a stretch of readings what can be seen in a plot: in each of `buckets` equal spans of time the first, the last,
 * the smallest and the largest value at most. Few readings are kept as they are.
 *
 * @param times - never falling
 * @param columns - NaN is a gap
 * @param begin - the first index, end the one behind the last
 */
export function thin(
  times: Float64Array,
  columns: readonly Float64Array[],
  begin: number,
  end: number,
  buckets: number,
): Thinned {
  if (end - begin <= 4 * buckets) {
    return {
      times: Array.from(times.subarray(begin, end)),
      columns: columns.map((column) => Array.from(column.subarray(begin, end), orGap)),
    };
  }
  const out: Thinned = { times: [], columns: columns.map(() => []) };
  const first = times[begin] ?? 0;
  const width = ((times[end - 1] ?? 0) - first) / buckets || 1;
  let from = begin;
  while (from < end) {
    const bucket = Math.floor(((times[from] ?? 0) - first) / width);
    const limit = first + (bucket + 1) * width;
    let to = from + 1;
    while (to < end && (times[to] ?? Infinity) < limit) {
      to += 1;
    }
    addBucket(out, times, columns, from, to);
    from = to;
  }
  return out;
}

/** Four points, in the order of time as far as it can be seen: first, smallest, largest, last. */
function addBucket(
  out: Thinned,
  times: Float64Array,
  columns: readonly Float64Array[],
  from: number,
  to: number,
): void {
  const first = times[from] ?? 0;
  const step = ((times[to - 1] ?? 0) - first) / 3;
  out.times.push(first, first + step, first + 2 * step, first + 3 * step);
  columns.forEach((column, index) => {
    let low = Infinity;
    let high = -Infinity;
    let lowAt = from;
    let highAt = from;
    for (let at = from; at < to; at += 1) {
      const value = column[at] ?? NaN;
      if (value < low) {
        low = value;
        lowAt = at;
      }
      if (value > high) {
        high = value;
        highAt = at;
      }
    }
    const [one, other] = lowAt < highAt ? [low, high] : [high, low];
    out.columns[index]?.push(
      orGap(column[from] ?? NaN),
      orGap(one),
      orGap(other),
      orGap(column[to - 1] ?? NaN),
    );
  });
}

function orGap(value: number): number | null {
  return Number.isFinite(value) ? value : null;
}
