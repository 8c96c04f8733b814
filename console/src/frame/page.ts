import {
  askAccess,
  mayBePhone,
  mayLook,
  maySteer,
  signIn,
  takeToken,
  type Access,
} from '../access.js';
import type { App, WatchSide } from '../app.js';
import { ControlRequests } from '../control/requests.js';
import type { Status } from '../control/messages.js';
import { h, setText } from '../dom.js';
import { Phone } from '../phone/phone.js';
import { TimeWindow } from '../plot/time-window.js';
import { State } from '../state.js';
import { Observed } from '../store/observed.js';
import { SensorsOn } from '../store/sensors-on.js';
import { timeText } from '../texts.js';
import { connectionText, ConnectionPill } from './connection.js';
import { NowStrip } from './now-strip.js';
import { SignInPage } from './sign-in.js';
import { Tabs } from './tabs.js';

const ASK_AGAIN_MS = 1000;
const ABOUT = 'A watch, live: what it senses, and what it tells a phone';

/** The frame of the page: who it is connected to, what is the matter, and the views in their tabs. */
export class Page {
  readonly access = new State<Access>({ kind: 'asking' });
  readonly #main = h('main', { class: 'page' });
  readonly #pill = new ConnectionPill();
  readonly #about = h('p', { class: 'about soft small' }, ABOUT);
  readonly #notice = h('div', { class: 'notices', role: 'status' });
  readonly #toast = h('p', { class: 'toast', role: 'status' });
  #toastTimer: ReturnType<typeof setTimeout> | undefined;
  #session: Session | undefined;

  constructor(root: HTMLElement) {
    const header = h(
      'header',
      { class: 'bar' },
      h('h1', {}, 'Parvane'),
      this.#pill.element,
      this.#about,
    );
    this.#main.append(h('p', { class: 'soft' }, 'Connecting to the watch …'));
    root.replaceChildren(header, this.#notice, this.#main, this.#toast);
    this.access.listen((access) => {
      this.#onAccess(access);
    });
    addEventListener('hashchange', () => {
      const token = takeToken();
      if (token !== undefined) {
        void this.#enter(token);
      }
    });
  }

  #onAccess(access: Access): void {
    switch (access.kind) {
      case 'asking':
        break;
      case 'in':
        this.#notice.replaceChildren();
        if (!this.#session) {
          this.#session = new Session(
            this.access,
            this.#pill,
            this.#notice,
            this.#about,
            (text, isBad) => {
              this.say(text, isBad);
            },
          );
          this.#main.replaceChildren(...this.#session.elements);
        }
        break;
      case 'away':
        this.#pill.show('gateway-away');
        this.#askLater();
        break;
      case 'out':
        this.#session?.close();
        this.#session = undefined;
        setText(this.#about, ABOUT);
        this.#pill.show(undefined);
        this.#notice.replaceChildren();
        this.#main.replaceChildren(
          new SignInPage(access.why, (token) => this.#enter(token)).element,
        );
        break;
    }
  }

  say(text: string, isBad = false): void {
    clearTimeout(this.#toastTimer);
    this.#toast.textContent = text;
    this.#toast.classList.toggle('bad', isBad);
    this.#toast.classList.add('on');
    this.#toastTimer = setTimeout(() => {
      this.#toast.classList.remove('on');
    }, 5000);
  }

  async #enter(token: string): Promise<void> {
    const access = await signIn(token);
    this.#session?.close();
    this.#session = undefined;
    this.access.set(access);
  }

  #askLater(): void {
    setTimeout(() => {
      void askAccess().then((access) => {
        if (this.access.value.kind === 'away') {
          this.access.set(access);
        }
      });
    }, ASK_AGAIN_MS);
  }
}

/** All that is there while this browser is let in. */
class Session {
  readonly elements: readonly HTMLElement[];
  readonly #access: State<Access>;
  readonly #pill: ConnectionPill;
  readonly #notice: HTMLElement;
  readonly #app: App;
  readonly #strip: NowStrip;
  readonly #tabs: Tabs;
  readonly #ends: (() => void)[] = [];
  #isAsking = false;

  constructor(
    access: State<Access>,
    pill: ConnectionPill,
    notice: HTMLElement,
    about: HTMLElement,
    say: App['say'],
  ) {
    this.#access = access;
    this.#pill = pill;
    this.#notice = notice;
    const base = `${location.protocol === 'https:' ? 'wss' : 'ws'}://${location.host}`;
    const phone = mayBePhone(access.value) ? new Phone(`${base}/link`) : undefined;
    const watch = mayLook(access.value)
      ? watchSide(`${base}/control`, maySteer(access.value))
      : undefined;
    const now = () => watch?.observed.now() ?? Date.now() / 1000;
    this.#app = { access, phone, watch, window: new TimeWindow(now), say };
    this.#strip = new NowStrip(this.#app);
    this.#tabs = new Tabs(this.#app);
    this.elements = [this.#strip.element, this.#tabs.element];
    this.#follow();
    if (watch) {
      this.#ends.push(
        watch.observed.status.listen((status) => {
          setText(about, status ? aboutText(status) : ABOUT);
        }),
      );
    }
    phone?.connect();
  }

  close(): void {
    this.#ends.forEach((end) => {
      end();
    });
    this.#strip.close();
    this.#tabs.close();
    const { phone, watch } = this.#app;
    phone?.disconnect();
    watch?.sensorsOn.close();
    watch?.requests.close();
    watch?.observed.close();
  }

  #follow(): void {
    const { phone, watch } = this.#app;
    const show = () => {
      this.#showConnection();
    };
    if (watch) {
      this.#ends.push(
        watch.observed.connection.listen((connection) => {
          if (connection === 'gateway-away') {
            phone?.drop('the gateway does not answer'); // its own end may never be told
          }
          show();
        }),
      );
    } else {
      const timer = setInterval(() => {
        if (!document.hidden) {
          this.#ask();
        }
      }, ASK_AGAIN_MS);
      this.#ends.push(() => {
        clearInterval(timer);
      });
    }
    if (phone) {
      this.#ends.push(phone.state.listen(show));
    }
  }

  #showConnection(): void {
    const { phone, watch } = this.#app;
    const state = watch?.observed.connection.value;
    const phoneState = phone?.state.value;
    if (state === 'token-ended' || phoneState?.kind === 'token-ended') {
      this.#access.set({
        kind: 'out',
        why: 'The token of this page was removed, or its time is over. Nothing is shown without one.',
      });
      return;
    }
    const isPhoneAway = phoneState?.kind === 'away';
    const shown =
      state ?? (isPhoneAway ? 'watch-away' : phoneState?.kind === 'linked' ? 'live' : 'connecting');
    this.#pill.show(shown, phoneState);
    if (state === 'gateway-away' || (watch === undefined && isPhoneAway)) {
      this.#ask(); // a cookie that counts no more is refused in the same way
    }
    const text = connectionText(shown, phoneState);
    const others = text === undefined ? [] : [h('p', { class: 'notice' }, text)];
    this.#notice.replaceChildren(...others);
  }

  /** Whether this browser is let in still. */
  #ask(): void {
    if (this.#isAsking) {
      return;
    }
    this.#isAsking = true;
    void askAccess(1800).then((access) => {
      this.#isAsking = false;
      if (access.kind === 'out') {
        const why = access.why || 'The token of this page was removed, or its time is over.';
        this.#access.set({ kind: 'out', why });
      } else if (access.kind === 'away' && !this.#app.watch) {
        this.#pill.show('gateway-away');
        this.#app.phone?.drop('the gateway does not answer');
      }
    });
  }
}

/** Which watch it is, and where its readings are from. */
function aboutText({ service, items }: Status): string {
  const names: Readonly<Record<string, string>> = {
    replay: 'a recording',
    iio: 'the kernel’s sensors',
    ble: 'a strap over Bluetooth',
    manual: 'values set by hand',
  };
  const sources = new Set(
    items.map(({ source }) => names[source]).filter((name) => name !== undefined),
  );
  const from =
    sources.size === 0 ? 'no sensor has a source' : `readings from ${[...sources].join(', ')}`;
  return `A watch, live: ${from}. Service ${service.version ?? ''}, since ${timeText(Date.parse(service.since))}`;
}

function watchSide(url: string, canSteer: boolean): WatchSide {
  const observed = new Observed(url);
  const sensorsOn = new SensorsOn(url, observed.status);
  if (!canSteer) {
    sensorsOn.isWanted.set(false);
  }
  return { observed, requests: new ControlRequests(url), sensorsOn, maySteer: canSteer };
}
