import { h } from '../dom.js';

/** What is shown without a token: how to get one. */
export class SignInPage {
  readonly element: HTMLElement;

  /** @param enter - is told of a token; ends when it was tried */
  constructor(why: string, enter: (token: string) => Promise<void>) {
    const input = h('input', {
      id: 'token',
      name: 'token',
      type: 'password',
      autocomplete: 'off',
      required: true,
      spellcheck: 'false',
    });
    const button = h('button', { class: 'main' }, 'Open');
    const form = h(
      'form',
      {
        onsubmit: (event: Event) => {
          event.preventDefault();
          button.disabled = true;
          void enter(tokenIn(input.value)).finally(() => {
            button.disabled = false;
          });
        },
      },
      h('label', { for: 'token' }, 'Token, or the whole address with it'),
      h('div', { class: 'row' }, input, button),
    );
    this.element = h(
      'section',
      { class: 'card narrow' },
      h('h2', {}, 'This page needs a token'),
      why === '' ? undefined : h('p', { class: 'notice' }, why),
      h(
        'p',
        {},
        'It shows a watch live: what it senses, and what it tells a phone. It is for whom the watch’s owner lets in.',
      ),
      h('p', {}, 'On the watch, this command makes a token and prints the address to open:'),
      h('pre', {}, 'sudo parvane-gateway token add my-browser --scope console'),
      h(
        'p',
        { class: 'soft' },
        'In the source tree, script/run --serve prints one for its watch on the desk.',
      ),
      form,
    );
  }
}

/** Of a token, or of an address that has it. */
function tokenIn(text: string): string {
  return /#(?:.*&)?token=([^&]+)/.exec(text)?.[1] ?? text.trim();
}
