/**
 * Limits and reasons for what a script calls on the page library's objects: every call ends within
 * its limit, and one that fails says which call, on which page, after how long, and what there was
 * instead of what it looked for.
 */

import { AsyncLocalStorage } from 'node:async_hooks';

import { reportElements } from './element-report.mjs';
import * as library from './page-library.mjs';

/** What a script calls on. */
const CLASSES = [
  library.Accessibility,
  library.Browser,
  library.CdpBrowser,
  library.CdpBrowserContext,
  library.CdpElementHandle,
  library.CdpFrame,
  library.CdpHTTPRequest,
  library.CdpHTTPResponse,
  library.CdpJSHandle,
  library.CdpKeyboard,
  library.CdpMouse,
  library.CdpPage,
  library.CdpTarget,
  library.CdpTouchscreen,
  library.CdpWebWorker,
  library.Coverage,
  library.Dialog,
  library.ElementHandle,
  library.FileChooser,
  library.Frame,
  library.HTTPRequest,
  library.JSHandle,
  library.Locator,
  library.Page,
  library.PageTarget,
  library.Tracing,
  library.WebWorker,
  library.WorkerTarget,
];

/** The limit of a call on what belongs to no page, in milliseconds. */
const DEFAULT_LIMIT = 30_000;

/** What a timer can wait at most, in milliseconds; a call without limit waits with it. */
const LONGEST_TIMER = 2 ** 31 - 1;

/** Methods that have no end to wait for, or call the script's listeners. */
const WITHOUT_LIMIT =
  /^(_|constructor$|on$|off$|once$|emit$|listenerCount$|removeAllListeners$|screencast$|finalizeI)/;

const NAVIGATIONS = new Set([
  'goBack',
  'goForward',
  'goto',
  'reload',
  'setContent',
  'waitForNavigation',
]);

/** Calls whose first argument is a selector. */
const SELECTING = new Set([
  '$',
  '$$',
  '$$eval',
  '$eval',
  'click',
  'focus',
  'hover',
  'locator',
  'select',
  'tap',
  'type',
  'waitForSelector',
]);

/** Calls that run the script's own code, whose errors are the script's own. */
const RUNNING = /evaluate|eval$|^map$|^filter$|^waitForFunction$/i;

/** Calls whose options are not their last argument: which one it is. */
const OPTIONS_AT = { send: 2, waitForFunction: 1 };

/**
 * Set while the library works for a call: what it calls itself is part of that call. It is a signal
 * that the call has ended.
 */
const insideCall = new AsyncLocalStorage();

/** What each locator was made of: root and selector. */
const origins = new WeakMap();

/** The pages of the objects that do not know theirs. */
const pages = new WeakMap();

/** Of each page: tells why its connection is lost, if it is. */
const losses = new WeakMap();

/** Readies a page before a call gives it. */
let preparePage;

/** The errors that say already what they have to. */
const explained = new WeakSet();

/**
 * Makes a page known, for what is said about its calls.
 * @param {library.Page} page
 * @param {() => string | null} lossOf tells why its connection is lost, if it is
 */
export function registerPage(page, lossOf) {
  losses.set(page, lossOf);
  const { accessibility, coverage, keyboard, mouse, touchscreen, tracing } = page;
  for (const part of [accessibility, coverage, keyboard, mouse, touchscreen, tracing]) {
    pages.set(part, page);
  }
  page.on('workercreated', (worker) => pages.set(worker, page));
}

/** The signal that the call which is under way has ended, in time or not. @returns {AbortSignal} */
export function endOfCall() {
  return insideCall.getStore();
}

/**
 * Runs code of the script's that a call was given: its calls and its errors are its own.
 * @param {() => unknown} action
 */
export async function asScript(action) {
  try {
    await insideCall.exit(action);
  } catch (error) {
    if (error instanceof Error) explained.add(error);
    throw error;
  }
}

/**
 * Puts the limits on the methods of the library's objects. Call it once.
 * @param {(page: library.Page) => Promise<void>} prepare readies a page before a call gives it
 */
export function limitCalls(prepare) {
  preparePage = prepare;
  unrefTimersOfCalls();
  for (const { prototype } of CLASSES) {
    for (const [name, property] of Object.entries(Object.getOwnPropertyDescriptors(prototype))) {
      if (typeof property.value !== 'function' || WITHOUT_LIMIT.test(name)) continue;
      Object.defineProperty(prototype, name, { ...property, value: limited(name, property.value) });
    }
  }
}

// The library leaves timers behind when a call of its own fails. A call that is under way has one of
// ours, which is enough to keep the process alive.
function unrefTimersOfCalls() {
  for (const name of ['setTimeout', 'setInterval']) {
    const start = globalThis[name];
    const startInCall = (...args) => {
      const timer = start(...args);
      return insideCall.getStore() ? timer.unref() : timer;
    };
    globalThis[name] = Object.defineProperties(
      startInCall,
      Object.getOwnPropertyDescriptors(start),
    );
  }
}

function limited(name, method) {
  return function limitedCall(...args) {
    if (insideCall.getStore()) return method.apply(this, args);
    const ending = new AbortController();
    const result = insideCall.run(ending.signal, () => method.apply(this, args));
    if (result instanceof library.Locator) {
      const made = { root: this, selector: args[0] };
      origins.set(result, name === 'locator' ? made : origins.get(this));
    }
    if (!(result instanceof Promise)) return result;
    const site = {};
    Error.captureStackTrace(site, limitedCall);
    const call = new Call(name, this, args, site);
    return call.limit(result).finally(() => ending.abort());
  };
}

// The library speaks through sessions of its own all the time: only a script's have limits.
function limitSession(session, page) {
  session.send = limited('send', session.send);
  if (page) pages.set(session, page);
}

/** One call of a script's that is under way. */
class Call {
  #name;
  #subject;
  #site;
  #limit;
  #begin = performance.now();
  #selector;
  #root;
  #told = '';
  #waitsForHidden;

  constructor(name, subject, args, site) {
    this.#name = name;
    this.#subject = subject;
    this.#site = site;
    const origin = origins.get(subject);
    this.#root = origin?.root ?? subject;
    this.#selector = origin ? origin.selector : SELECTING.has(name) ? args[0] : undefined;
    // Not any text: it could be one that is typed into a field for a password.
    const what = this.#selector ?? (/^(goto|send)$/.test(name) ? args[0] : undefined);
    if (typeof what === 'string') this.#told = ` '${shortened(what)}'`;
    const { timeout, hidden } = Object(optionsOf(name, args));
    this.#waitsForHidden = hidden === true;
    this.#limit = typeof timeout === 'number' ? timeout : this.#defaultLimit();
  }

  /** Settles as `result` does, in time, and with an error that says what happened. */
  async limit(result) {
    let timer;
    const late = (_, reject) => {
      const expire = () => this.#limit > 0 && reject(new library.TimeoutError());
      timer = setTimeout(expire, this.#limit > 0 ? this.#limit : LONGEST_TIMER);
    };
    try {
      const value = await Promise.race([result, new Promise(late)]);
      if (value instanceof library.CDPSession) limitSession(value, this.#page);
      if (value instanceof library.Page) await preparePage(value);
      return value;
    } catch (error) {
      if (error instanceof Error && !explained.has(error)) {
        await insideCall.run(AbortSignal.abort(), () => this.#explain(error));
      }
      throw error;
    } finally {
      clearTimeout(timer);
    }
  }

  async #explain(error) {
    const elapsed = performance.now() - this.#begin;
    const isLibrarys =
      error instanceof library.PuppeteerError ||
      !RUNNING.test(this.#name) ||
      /failed to find element|^Execution context|detached/.test(error.message);
    if (isLibrarys) error.message = await this.#message(error, elapsed);
    if (error.cause instanceof library.PuppeteerError) delete error.cause; // it says nothing more
    const frames = this.#site.stack.split('\n').filter((line) => /^\s+at /.test(line));
    error.stack = [`${error.name}: ${error.message}`, ...frames].join('\n');
    explained.add(error);
  }

  async #message(error, elapsed) {
    const text = typeof this.#selector === 'string';
    const report = text ? await reportElements(this.#root, this.#selector) : null;
    const found = report ? ` (${report.found})` : '';
    const page = this.#page;
    const place = page ? ` on ${shortened(page.url())}` : '';
    const begin = `${this.#name}${this.#told}`;
    if (error instanceof library.TimeoutError) {
      return `${begin}: ${this.#lack(report)} within ${duration(this.#limit)}${found}${place}`;
    }
    const loss = page && losses.get(page)?.();
    if (loss) return `${begin}: ${loss}${place}`;
    const after = elapsed < 1000 ? '' : ` after ${duration(elapsed)}`;
    const reason = error.message.replace(/^Error: /, '').replace(/ at http\S+$/, '');
    return `${begin}: ${reason}${found}${after}${place}`;
  }

  #lack(report) {
    if (NAVIGATIONS.has(this.#name)) return 'not loaded';
    if (this.#waitsForHidden) return 'still visible';
    if (report) return report.lack;
    const waits = this.#subject instanceof library.Locator || /^waitFor/.test(this.#name);
    return waits ? 'it did not happen' : 'no answer';
  }

  #defaultLimit() {
    if (this.#subject instanceof library.Locator) return this.#subject.timeout;
    const page = this.#page;
    if (!page) return DEFAULT_LIMIT;
    return NAVIGATIONS.has(this.#name)
      ? page.getDefaultNavigationTimeout()
      : page.getDefaultTimeout();
  }

  get #page() {
    const root = this.#root;
    if (root instanceof library.Page) return root;
    if (root instanceof library.Frame) return root.page();
    if (root instanceof library.CdpHTTPResponse || root instanceof library.HTTPRequest) {
      return root.frame()?.page();
    }
    if (root instanceof library.JSHandle) return root.frame?.page(); // only elements know their frame
    return pages.get(root);
  }
}

function optionsOf(name, args) {
  if (Object.hasOwn(OPTIONS_AT, name)) return args[OPTIONS_AT[name]];
  return RUNNING.test(name) ? undefined : args.at(-1); // the arguments of the script's own code
}

function duration(milliseconds) {
  if (milliseconds < 1000) return `${Math.round(milliseconds)} ms`;
  return `${Number((milliseconds / 1000).toFixed(1))} s`;
}

function shortened(text) {
  return text.length <= 200 ? text : `${text.slice(0, 199)}…`;
}
