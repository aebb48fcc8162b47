/** Version of the product that this program ships with; the build refuses a mismatch. */
export const VERSION = '2026.09.04';
