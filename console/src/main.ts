import 'uplot/dist/uPlot.min.css';
import './style.css';

import { askAccess, signIn, takeToken } from './access.js';
import { Page } from './frame/page.js';

const token = takeToken(); // before anything else
const root = document.querySelector<HTMLElement>('#page');
if (root) {
  const page = new Page(root);
  void (token === undefined ? askAccess() : signIn(token)).then((access) => {
    page.access.set(access);
  });
}
