/** Code for a page to run, and what becomes of its result. */

/**
 * @param {Function | string} code
 * @param {unknown[]} args for a function
 * @returns {string} a JavaScript expression
 * @throws {TypeError} for code that is neither, and for an argument that JSON cannot carry
 */
export function callExpression(code, args) {
  if (typeof code === 'string') {
    if (args.length > 0) throw new TypeError('evaluate: an expression takes no arguments');
    return code;
  }
  if (typeof code !== 'function') {
    throw new TypeError('evaluate takes a function or an expression in a text');
  }
  return `(${code})(${args.map(argumentLiteral).join(', ')})`;
}

function argumentLiteral(value, index) {
  if (value === undefined) return 'undefined';
  let json;
  try {
    json = JSON.stringify(value);
  } catch (error) {
    throw new TypeError(`evaluate: argument ${index + 1}: ${error.message}`);
  }
  if (json === undefined) {
    throw new TypeError(`evaluate: argument ${index + 1}: JSON has no ${typeof value}`);
  }
  // Through JSON.parse, because a literal gives the key __proto__ another meaning.
  return value !== null && typeof value === 'object' ? `JSON.parse(${JSON.stringify(json)})` : json;
}

/**
 * @param {object} reply of Runtime.evaluate, by value
 * @returns {unknown} the value
 * @throws {Error} with the page's exception
 */
export function evaluationResult({ result, exceptionDetails }) {
  if (exceptionDetails) throw new Error(exceptionMessage(exceptionDetails));
  if (result.unserializableValue === undefined) return result.value;
  const text = result.unserializableValue;
  return result.type === 'bigint' ? BigInt(text.slice(0, -1)) : Number(text); // NaN, ±Infinity, -0
}

function exceptionMessage({ exception, text }) {
  if (!exception) return text;
  // An Error describes itself by its stack, of which a script's reader needs the first part.
  if (exception.subtype === 'error') return exception.description.split('\n    at ')[0];
  return `page threw ${thrownValue(exception)}`;
}

function thrownValue({ value, preview, description, type }) {
  if (value !== undefined) return JSON.stringify(value);
  if (!preview) return description ?? type;
  const properties = preview.properties.map((property) => `${property.name}: ${property.value}`);
  return `${description} {${properties.join(', ')}}`;
}
