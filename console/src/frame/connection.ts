import { h, setText } from '../dom.js';
import type { PhoneState } from '../phone/phone.js';
import type { Connection } from '../store/observed.js';

const PILLS: Readonly<Record<Connection, readonly [string, string]>> = {
  connecting: ['Connecting …', ''],
  live: ['Live', 'good'],
  silent: ['No answer', 'bad'],
  'gateway-away': ['Gateway away', 'bad'],
  'watch-away': ['Watch away', 'bad'],
  busy: ['Watch busy', 'bad'],
  'token-ended': ['Token ended', 'bad'],
};

/** Beside the name: whether what is shown is so now. */
export class ConnectionPill {
  readonly element = h('span', { class: 'pill', role: 'status' });

  /** @param connection - undefined: there is nothing to be connected to */
  show(connection: Connection | undefined, phone?: PhoneState): void {
    const [text, kind] = connection === undefined ? ['Not signed in', ''] : PILLS[connection];
    const isTaken = connection === 'live' && phone?.kind === 'taken';
    setText(this.element, isTaken ? 'Live, not the phone' : text);
    this.element.className = `pill ${kind}`;
    document.body.classList.toggle('stale', connection !== 'live' && connection !== undefined);
  }
}

/** What is the matter, in a sentence; undefined when nothing is. */
export function connectionText(connection: Connection, phone?: PhoneState): string | undefined {
  switch (connection) {
    case 'silent':
      return 'The gateway does not answer. What is shown is what it was; the page goes on as soon as it can.';
    case 'gateway-away':
      return 'The gateway is away. What is shown is what it was; the page goes on as soon as it is back.';
    case 'watch-away':
      return (
        'The watch’s service is away: it is not running, or does not let the gateway in. What is shown is what it ' +
        'was; the page goes on as soon as it is back.'
      );
    case 'busy':
      return 'The watch’s service has no room for one more who looks on. Close another page of it.';
    default:
      break;
  }
  if (phone?.kind === 'taken') {
    return (
      'Another phone is connected, perhaps another tab of this page, and a watch has one phone at a time. This page ' +
      'becomes the phone when that one leaves. The watch’s view works meanwhile.'
    );
  }
  return phone?.kind === 'away'
    ? `This page is not the watch’s phone at the moment: ${phone.why}. It tries again by itself.`
    : undefined;
}
