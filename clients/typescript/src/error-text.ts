/** What a caught value says, in a line for people. */
export function errorText(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}
