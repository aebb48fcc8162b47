/** What there is on a page in place of the element that a call was after. */

const TIMEOUT = 1_000;

/**
 * @typedef {object} ElementReport
 * @property {string} lack what the element would have to be and is not
 * @property {string} found how many there are, and what the first one's matter is
 */

/**
 * @param {{$$: (selector: string) => Promise<object[]>}} root a page, frame or element
 * @param {string} selector
 * @returns {Promise<ElementReport | null>} null when the page does not tell within a second
 */
export async function reportElements(root, selector) {
  let timer;
  const late = new Promise((resolve) => (timer = setTimeout(resolve, TIMEOUT, null)));
  try {
    return await Promise.race([look(root, selector), late]);
  } catch {
    return null; // the page went away, or the selector is none
  } finally {
    clearTimeout(timer);
  }
}

async function look(root, selector) {
  const elements = await root.$$(selector);
  if (elements.length === 0) return { lack: 'not there', found: '0 found' };
  const { lack, matter } = await elements[0].evaluate(examine);
  const first = elements.length === 1 ? '' : 'the first ';
  return { lack, found: `${elements.length} found, ${first}${matter}` };
}

/* Runs in the page. */
function examine(element) {
  const box = element.getBoundingClientRect();
  const { display, visibility } = getComputedStyle(element);
  const invisible = (matter) => ({ lack: 'not visible', matter });
  if (display === 'none' || visibility !== 'visible') return invisible('hidden');
  if (box.width === 0 || box.height === 0) return invisible('without a size');
  if (element.matches(':disabled')) return { lack: 'not enabled', matter: 'disabled' };
  const [x, y] = [box.left + box.width / 2, box.top + box.height / 2];
  const top = element.getRootNode().elementFromPoint(x, y);
  if (!top) return invisible('outside of the window');
  if (element.contains(top) || top.contains(element))
    return { lack: 'not ready', matter: 'visible' };
  const id = top.id ? `#${top.id}` : '';
  const classes = [...top.classList].map((name) => `.${name}`).join('');
  return invisible(`covered by ${top.localName}${id}${classes}`);
}
