/** The options of openTaskSpace: what there is, and what may be in them. */

import path from 'node:path';

import { makeDirectories } from './paths.mjs';

/** What each option takes, and how it is told. */
const OPTIONS = {
  viewport: {
    takes: 'an object {width, height, …} in CSS pixels',
    accepts: (value) => value?.width > 0 && value?.height > 0,
  },
  userAgent: { takes: 'a text', accepts: isText },
  locale: { takes: "a language tag such as 'de-DE'", accepts: isLocale },
  timezone: { takes: "a time zone such as 'Europe/Berlin'", accepts: isTimezone },
  downloads: { takes: 'the path of a directory', accepts: isText },
};

/**
 * @typedef {object} SpaceOptions
 * @property {object} [viewport] as the library's Page.setViewport takes it
 * @property {string} [userAgent]
 * @property {string} [locale]    BCP 47
 * @property {string} [timezone]  IANA name
 * @property {string} [downloads] directory that downloads are kept in, made absolute
 */

/**
 * @param {unknown} options of openTaskSpace
 * @returns {SpaceOptions} a copy; the directory for downloads exists
 * @throws {TypeError} that names the option and what it takes
 */
export function checkOptions(options = {}) {
  if (options === null || typeof options !== 'object') {
    throw new TypeError('openTaskSpace: the options are an object');
  }
  checkNames('openTaskSpace', options, Object.keys(OPTIONS));
  const checked = {};
  for (const [name, value] of Object.entries(options)) {
    if (value === undefined) continue;
    const { takes, accepts } = OPTIONS[name];
    if (!accepts(value)) throw new TypeError(`openTaskSpace: ${name} takes ${takes}`);
    checked[name] = value;
  }
  if (checked.downloads !== undefined) checked.downloads = usableDirectory(checked.downloads);
  return checked;
}

/**
 * @param {string} call
 * @param {object} options
 * @param {string[]} known names
 * @throws {TypeError} when an option has another name
 */
export function checkNames(call, options, known) {
  for (const name of Object.keys(options)) {
    if (known.includes(name)) continue;
    throw new TypeError(`${call}: there is no option '${name}' (${known.join(', ')})`);
  }
}

function usableDirectory(name) {
  const directory = path.resolve(name);
  makeDirectories(directory);
  return directory;
}

function isText(value) {
  return typeof value === 'string' && value !== '';
}

function isLocale(value) {
  return isText(value) && succeeds(() => Intl.getCanonicalLocales(value));
}

function isTimezone(value) {
  return isText(value) && succeeds(() => new Intl.DateTimeFormat('en', { timeZone: value }));
}

function succeeds(attempt) {
  try {
    attempt();
    return true;
  } catch {
    return false;
  }
}
