/** The kept logins, as task spaces get them and give them back. */

import { giveLogin, readCookies } from './login-transfer.mjs';
import { Logins } from './logins.mjs';

export class SpaceLogins {
  #logins;
  #pipe;
  #log;

  /**
   * @param {object} options
   * @param {NodeJS.ProcessEnv} options.env says where the logins are
   * @param {() => import('./devtools-pipe.mjs').DevToolsPipe} options.pipe gives the browser's pipe
   * @param {import('./keeper-log.mjs').KeeperLog} options.log gets what goes wrong: a task space
   *   without its login is better than none
   */
  constructor({ env, pipe, log }) {
    this.#logins = new Logins(env);
    this.#pipe = pipe;
    this.#log = log;
  }

  /**
   * Gives a task space its own login, or else a copy of the base one.
   * @param {import('./task-spaces.mjs').TaskSpace} space
   */
  async give(space) {
    try {
      const own = this.#logins.read(space.name);
      space.hasOwnLogin = own !== null;
      const login = own ?? this.#logins.read();
      if (login) await giveLogin(this.#pipe(), login, space.contextId);
    } catch (error) {
      this.#log.write(
        `task space ${JSON.stringify(space.name)} is without login: ${error.message}`,
      );
    }
  }

  /**
   * Keeps a login of its own as it was left, since sites renew their cookies.
   * @param {import('./task-spaces.mjs').TaskSpace} space
   */
  async keep(space) {
    if (!space.hasOwnLogin) return;
    try {
      const login = this.#logins.read(space.name);
      if (!login) return; // forgotten meanwhile
      const cookies = await readCookies(this.#pipe(), space.contextId);
      this.#logins.write(space.name, { ...login, cookies });
    } catch (error) {
      const name = JSON.stringify(space.name);
      this.#log.write(`the login of task space ${name} is kept as it was: ${error.message}`);
    }
  }
}
