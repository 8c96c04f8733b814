/** Whether this browser is let in, and for what. */
export type Access =
  | { readonly kind: 'asking' }
  /** No token yet, or none that counts; `why` is a line for people. */
  | { readonly kind: 'out'; readonly why: string }
  | { readonly kind: 'in'; readonly scope: Scope; readonly name: string }
  /** The gateway does not answer. */
  | { readonly kind: 'away' };

/** What a token is for. */
export type Scope = 'phone' | 'view' | 'control' | 'console';

export function mayBePhone(access: Access): boolean {
  return access.kind === 'in' && (access.scope === 'phone' || access.scope === 'console');
}

export function mayLook(access: Access): boolean {
  return access.kind === 'in' && access.scope !== 'phone';
}

export function maySteer(access: Access): boolean {
  return access.kind === 'in' && (access.scope === 'control' || access.scope === 'console');
}

/** The token of the address, which is taken out of it at once: neither history nor bookmark has it. */
export function takeToken(): string | undefined {
  const parameters = new URLSearchParams(location.hash.slice(1));
  const token = parameters.get('token') ?? undefined;
  if (token !== undefined) {
    history.replaceState(null, '', location.pathname + location.search);
  }
  return token;
}

/** Exchanges a token for the cookie of this browser. */
export async function signIn(token: string): Promise<Access> {
  try {
    const headers = { Authorization: `Bearer ${token}` };
    const response = await fetch('/session', { method: 'POST', headers });
    if (response.ok) {
      const access = await askAccess();
      known = access.kind === 'in' ? token : undefined;
      return access;
    }
    return { kind: 'out', why: refusalText(response.status) };
  } catch {
    known = token; // to be tried again
    return { kind: 'away' };
  }
}

/** What this page was opened with, and nothing else has: a gateway that has started again knows no cookie of before. */
let known: string | undefined;

/** What the cookie of this browser stands for; one that counts no more is exchanged for another, once. */
export async function askAccess(timeoutMs = 5000): Promise<Access> {
  try {
    const response = await fetch('/session', { signal: AbortSignal.timeout(timeoutMs) });
    if (response.status === 401) {
      const token = known;
      known = undefined;
      return token === undefined ? { kind: 'out', why: '' } : await signIn(token);
    }
    if (!response.ok) {
      return { kind: 'out', why: refusalText(response.status) };
    }
    const { scope, name } = (await response.json()) as { scope: Scope; name: string };
    return { kind: 'in', scope, name };
  } catch {
    return { kind: 'away' };
  }
}

function refusalText(status: number): string {
  switch (status) {
    case 401:
      return 'The gateway does not know this token. It may have been removed, or its time is over.';
    case 429:
      return 'There were too many wrong tokens from this address. Wait a minute, and try again.';
    default:
      return `The gateway refuses with status ${status}.`;
  }
}
