/** The licences of the packages that went into the bundle. */

import fs from 'node:fs';
import path from 'node:path';

const PACKAGE = /^(.*[\\/]node_modules[\\/]((?:@[^\\/]+[\\/])?[^\\/]+))[\\/](.*)$/;
const LICENSE_FILE = /^(licen[cs]e|copying|notice)(\.(md|txt))?$/i;

/** Texts for packages that name a licence and bring none, by its SPDX name. */
const TEXTS = { 'Apache-2.0': new URL('./licenses/Apache-2.0.txt', import.meta.url) };

/**
 * @param {import('esbuild').Metafile} metafile
 * @param {string} base the directory that its paths are relative to
 * @returns {string} each bundled package with its version and its licence's text
 * @throws {Error} when there is no licence for one
 */
export function describeLicenses(metafile, base) {
  const sections = [...bundledPackages(metafile, base)]
    .sort(([a], [b]) => (a < b ? -1 : 1))
    .map(([directory, files]) => describePackage(directory, files));
  return ['Third-party software in verdo-browser\n', ...sections].join(`\n${'='.repeat(80)}\n\n`);
}

/** The directory of each package with its files that left something in the outputs. */
function bundledPackages(metafile, base) {
  const packages = new Map();
  for (const { inputs } of Object.values(metafile.outputs)) {
    for (const [name, { bytesInOutput }] of Object.entries(inputs)) {
      const [, directory, , file] = PACKAGE.exec(path.resolve(base, name)) ?? [];
      if (!directory || bytesInOutput === 0) continue;
      if (!packages.has(directory)) packages.set(directory, new Set());
      packages.get(directory).add(file);
    }
  }
  return packages;
}

function describePackage(directory, files) {
  const { name, version, license } = JSON.parse(read(directory, 'package.json'));
  const texts = fs
    .readdirSync(directory)
    .filter((file) => LICENSE_FILE.test(file))
    .map((file) => read(directory, file));
  if (texts.length === 0 && Object.hasOwn(TEXTS, license)) {
    const holders = [...files].flatMap(
      (file) => read(directory, file).match(/Copyright \d{4}.*/g) ?? [],
    );
    texts.push([...new Set(holders)].sort().join('\n'), fs.readFileSync(TEXTS[license], 'utf8'));
  }
  if (texts.length === 0) throw new Error(`${name} ${version} has no licence file (${license})`);
  const vendored = [...files].filter((file) => /[\\/]third_party[\\/]/.test(file)).sort();
  const parts = vendored.map((file) => describeVendored(name, directory, file));
  return [`${name} ${version} (${license})`, ...texts, ...parts].join('\n\n');
}

/** A package that another one has copied into itself, with its licence as comments. */
function describeVendored(name, directory, file) {
  const comments = read(directory, file).match(/\/\*[^]*?\*\//g) ?? [];
  const texts = comments.filter((text) => /Copyright/.test(text));
  if (texts.length === 0) throw new Error(`${name}'s ${file} has no licence`);
  return [`${name} contains ${path.basename(file, '.js')}:`, ...texts].join('\n\n');
}

function read(directory, file) {
  return fs.readFileSync(path.join(directory, file), 'utf8');
}
