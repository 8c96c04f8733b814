/** What an element is made with: its properties by name, attributes with a dash or where there is no property. */
export type Properties = Readonly<
  Record<string, string | number | boolean | undefined | ((event: never) => void)>
>;
export type Child = Node | string | undefined;

/**
 * Makes an element: `h('button', { class: 'plain', onclick: go }, 'Go')`. Nothing of it is parsed as HTML.
 *
 * @param properties - functions are listeners, by the name of their event with "on" in front; true is an
 * attribute without a value, false and undefined are none
 */
export function h<Name extends keyof HTMLElementTagNameMap>(
  name: Name,
  properties: Properties = {},
  ...children: readonly Child[]
): HTMLElementTagNameMap[Name] {
  const element = document.createElement(name);
  fill(element, properties, children);
  return element;
}

/** The same for SVG. */
export function svg<Name extends keyof SVGElementTagNameMap>(
  name: Name,
  properties: Properties = {},
  ...children: readonly Child[]
): SVGElementTagNameMap[Name] {
  const element = document.createElementNS('http://www.w3.org/2000/svg', name);
  fill(element, properties, children);
  return element;
}

function fill(element: Element, properties: Properties, children: readonly Child[]): void {
  for (const [key, value] of Object.entries(properties)) {
    if (typeof value === 'function') {
      element.addEventListener(key.slice(2), value as (event: Event) => void);
    } else if (value !== undefined && value !== false) {
      element.setAttribute(key, value === true ? '' : String(value));
    }
  }
  element.append(...children.filter((child) => child !== undefined));
}

/** Sets a text, if it is another one: what has not changed is not read out again. */
export function setText(element: Element, text: string): void {
  if (element.textContent !== text) {
    element.textContent = text;
  }
}

/** Has the browser store something as a file. */
export function saveFile(name: string, content: Blob): void {
  const url = URL.createObjectURL(content);
  h('a', { href: url, download: name }).click();
  setTimeout(() => {
    URL.revokeObjectURL(url);
  }, 10_000);
}
