import type { App } from '../app.js';
import { h, saveFile, setText } from '../dom.js';
import { onNextFrame } from '../plot/frames.js';
import { errorText } from '../texts.js';
import { toJson, toText, type LoggedPacket } from './packet-log.js';
import { hex, parseHex } from './packets.js';
import { toPcapng } from './pcapng.js';
import type { Phone } from './phone.js';
import type { Part } from './view.js';

const MOST_SHOWN = 200;

/** Bytes to begin with; what a person may type is anything. */
const SAMPLES: readonly (readonly [string, string])[] = [
  ['List the sensors', '01 00 00 00'],
  ['Measure the heart rate', '02 00 00 03'],
  ['Measure the worn state', '02 00 00 04'],
  ['Measure the steps', '02 00 00 02'],
  ['Start the activity, default format', '03 00 00 01 00'],
  ['Stop the activity', '04 00 00 01'],
  ['A command that does not exist', '0f 00 00 01'],
  ['A sensor that does not exist', '02 00 00 09'],
];

/** Every packet that crosses the link, and a box for bytes of one's own. */
export class PacketCard implements Part {
  readonly element: HTMLElement;
  readonly #phone: Phone;
  readonly #app: App;
  readonly #rows = h('tbody', {});
  readonly #count = h('p', { class: 'soft small', role: 'status' });
  readonly #filter = h('input', {
    id: 'packet-filter',
    type: 'search',
    placeholder: 'hr, 14 00, malformed …',
  });
  readonly #pause = h('button', { id: 'packet-pause', 'aria-pressed': 'false' }, 'Pause');
  readonly #raw = h('input', {
    id: 'raw',
    autocomplete: 'off',
    spellcheck: 'false',
    placeholder: '14 00 00 01',
  });
  readonly #rawProblem = h('p', { class: 'bad small', role: 'alert' });
  readonly #unlisten: () => void;
  /** While it is paused: what was there then. */
  #frozen: readonly LoggedPacket[] | undefined;
  readonly #drawn = new Map<number, HTMLElement>();

  constructor(phone: Phone, app: App) {
    this.#phone = phone;
    this.#app = app;
    this.#filter.addEventListener('input', () => {
      this.#draw();
    });
    this.#pause.addEventListener('click', () => {
      this.#togglePause();
    });
    this.element = h(
      'section',
      { class: 'card wide', id: 'packets' },
      h('h2', {}, 'Packets on the link'),
      this.#tools(),
      h(
        'div',
        {
          class: 'scroll tall',
          tabindex: 0,
          role: 'region',
          'aria-label': 'Packets, the newest first',
        },
        h(
          'table',
          { class: 'packets' },
          h(
            'thead',
            {},
            h(
              'tr',
              {},
              ...['Time', 'Direction', 'Bytes', 'Packet', 'Answer in'].map((text) =>
                h('th', { scope: 'col' }, text),
              ),
            ),
          ),
          this.#rows,
        ),
      ),
      this.#count,
      this.#rawForm(),
    );
    this.#unlisten = phone.log.packets.listen(() => {
      onNextFrame(this.#draw);
    });
  }

  close(): void {
    this.#unlisten();
  }

  #tools(): HTMLElement {
    const { log } = this.#phone;
    const button = (id: string, text: string, act: () => void) =>
      h('button', { id: `packet-${id}`, onclick: act }, text);
    return h(
      'div',
      { class: 'row' },
      h('label', { for: 'packet-filter' }, 'Filter'),
      this.#filter,
      this.#pause,
      button('copy', 'Copy', () => void this.#copy()),
      button('pcapng', 'Save pcapng', () => {
        saveFile('link.pcapng', new Blob([toPcapng(this.#shown())]));
      }),
      button('json', 'Save JSON', () => {
        saveFile('link.json', new Blob([toJson(this.#shown())], { type: 'application/json' }));
      }),
      button('clear', 'Clear', () => {
        this.#frozen = this.#frozen && [];
        log.clear();
      }),
    );
  }

  #rawForm(): HTMLElement {
    const samples = h(
      'select',
      { id: 'raw-sample', 'aria-label': 'Packets to begin with' },
      h('option', { value: '' }, 'Take a packet …'),
      ...SAMPLES.map(([name, bytes]) => h('option', { value: bytes }, name)),
    );
    samples.addEventListener('change', () => {
      this.#raw.value = samples.value || this.#raw.value;
      samples.value = '';
      this.#raw.focus();
    });
    return h(
      'form',
      {
        onsubmit: (event: Event) => {
          event.preventDefault();
          this.#sendRaw();
        },
      },
      h('label', { for: 'raw' }, 'Send bytes as they are (hexadecimal)'),
      h('div', { class: 'row' }, this.#raw, h('button', { id: 'raw-send' }, 'Send'), samples),
      this.#rawProblem,
    );
  }

  #sendRaw(): void {
    let problem = '';
    try {
      if (!this.#phone.sendRaw(parseHex(this.#raw.value))) {
        problem = 'Not sent: there is no link to the watch.';
      }
    } catch (error) {
      problem = `Not sent: ${errorText(error)}.`;
    }
    setText(this.#rawProblem, problem);
  }

  #togglePause(): void {
    this.#frozen = this.#frozen ? undefined : [...this.#phone.log.packets.value];
    this.#pause.setAttribute('aria-pressed', String(this.#frozen !== undefined));
    setText(this.#pause, this.#frozen ? 'Go on' : 'Pause');
    this.#draw();
  }

  async #copy(): Promise<void> {
    const shown = this.#shown();
    try {
      await navigator.clipboard.writeText(toText(shown));
      this.#app.say(`${shown.length} packets copied.`);
    } catch (error) {
      this.#app.say(`Not copied: ${errorText(error)}`, true);
    }
  }

  /** What the filter leaves, the oldest first. */
  #shown(): LoggedPacket[] {
    const words = this.#filter.value
      .toLowerCase()
      .split(/\s*,\s*/)
      .filter(Boolean);
    const packets = this.#frozen ?? this.#phone.log.packets.value;
    return words.length === 0
      ? [...packets]
      : packets.filter((packet) => {
          const text = searchText(packet);
          return words.some((word) => text.includes(word));
        });
  }

  readonly #draw = () => {
    const shown = this.#shown();
    const newest = shown.slice(-MOST_SHOWN).reverse();
    const rows = newest.map((packet) => {
      const row = this.#drawn.get(packet.number) ?? packetRow(packet);
      this.#drawn.set(packet.number, row);
      return row;
    });
    if (this.#drawn.size > 4 * MOST_SHOWN) {
      this.#drawn.clear();
    }
    this.#rows.replaceChildren(...rows);
    const all = (this.#frozen ?? this.#phone.log.packets.value).length;
    const parts = [`${shown.length} of ${all} packets`];
    if (shown.length > MOST_SHOWN) {
      parts.push(`the newest ${MOST_SHOWN} shown`);
    }
    if (this.#frozen) {
      parts.push('paused');
    }
    setText(this.#count, parts.join(', '));
  };
}

function searchText({ sender, bytes, kind, fields, wrong }: LoggedPacket): string {
  return `${sender} ${hex(bytes)} ${kind} ${fields} ${wrong ?? ''}`.toLowerCase();
}

function packetRow(packet: LoggedPacket): HTMLElement {
  const { atMs, sender, bytes, kind, fields, wrong, answerMs } = packet;
  const time = new Date(atMs);
  const clock = `${time.toLocaleTimeString(undefined, { hour12: false })}.${String(time.getMilliseconds()).padStart(3, '0')}`;
  return h(
    'tr',
    { class: wrong === undefined ? sender : `${sender} wrong` },
    h('td', { class: 'code' }, clock),
    h('td', {}, sender === 'phone' ? 'phone → watch' : 'watch → phone'),
    h('td', { class: 'code bytes' }, hex(bytes)),
    h(
      'td',
      {},
      h('strong', {}, kind),
      fields === '' ? undefined : ` ${fields}`,
      wrong === undefined ? undefined : h('span', { class: 'bad' }, ` ⚠ ${wrong}`),
    ),
    h('td', { class: 'number' }, answerMs === undefined ? '' : answerText(answerMs)),
  );
}

function answerText(ms: number): string {
  return ms < 1000 ? `${ms.toFixed(1)} ms` : `${(ms / 1000).toFixed(2)} s`;
}
