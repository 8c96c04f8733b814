/** "just now", "4 s ago", "2 min ago", "3 h ago". */
export function ageText(ageMs: number): string {
  const seconds = Math.floor(Math.max(ageMs, 0) / 1000);
  if (seconds < 2) {
    return 'just now';
  }
  if (seconds < 60) {
    return `${seconds} s ago`;
  }
  return seconds < 3600
    ? `${Math.floor(seconds / 60)} min ago`
    : `${Math.floor(seconds / 3600)} h ago`;
}

/** Of the `activity/status` of a sensor. */
export function sensorActivityText(value: number): string {
  return ['other', 'still', 'walking', 'running'][value] ?? `activity ${value}`;
}

/** "1,234", as this browser writes numbers. */
export function numberText(value: number, digits = 0): string {
  return value.toLocaleString(undefined, {
    minimumFractionDigits: digits,
    maximumFractionDigits: digits,
  });
}

/** Of the day: "14:03:09". */
export function timeText(ms: number): string {
  return new Date(ms).toLocaleTimeString(undefined, { hour12: false });
}

/** The message of whatever was thrown. */
export function errorText(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}
