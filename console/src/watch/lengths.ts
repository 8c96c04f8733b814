/** "3 s", "2 min 5 s", "1 h 3 min". */
export function lengthText(ms: number): string {
  const seconds = Math.floor(Math.max(ms, 0) / 1000);
  if (seconds < 60) {
    return `${seconds} s`;
  }
  const minutes = Math.floor(seconds / 60);
  return minutes < 60
    ? `${minutes} min ${seconds % 60} s`
    : `${Math.floor(minutes / 60)} h ${minutes % 60} min`;
}
