/**
 * The page library as scripts get it: puppeteer-core without what starts browsers. Loaded only by
 * scripts that open a task space.
 */

import fs from 'node:fs';
import path from 'node:path';

import { environment } from 'puppeteer-core/internal/environment.js';
import { ScreenRecorder } from 'puppeteer-core/internal/node/ScreenRecorder.js';
import {
  Accessibility,
  Browser,
  CDPSession,
  CdpBrowser,
  CdpBrowserContext,
  CdpElementHandle,
  CdpFrame,
  CdpHTTPRequest,
  CdpHTTPResponse,
  CdpJSHandle,
  CdpKeyboard,
  CdpMouse,
  CdpPage,
  CdpTarget,
  CdpTouchscreen,
  CdpWebWorker,
  Coverage,
  Dialog,
  ElementHandle,
  FileChooser,
  Frame,
  HTTPRequest,
  JSHandle,
  Locator,
  Page,
  PageTarget,
  PuppeteerError,
  TimeoutError,
  Tracing,
  WebWorker,
  WorkerTarget,
  connect,
} from 'puppeteer-core/lib/esm/puppeteer/puppeteer-core-browser.js';

environment.value = { fs, path, ScreenRecorder }; // for what reads and writes files

export {
  Accessibility,
  Browser,
  CDPSession,
  CdpBrowser,
  CdpBrowserContext,
  CdpElementHandle,
  CdpFrame,
  CdpHTTPRequest,
  CdpHTTPResponse,
  CdpJSHandle,
  CdpKeyboard,
  CdpMouse,
  CdpPage,
  CdpTarget,
  CdpTouchscreen,
  CdpWebWorker,
  Coverage,
  Dialog,
  ElementHandle,
  FileChooser,
  Frame,
  HTTPRequest,
  JSHandle,
  Locator,
  Page,
  PageTarget,
  PuppeteerError,
  TimeoutError,
  Tracing,
  WebWorker,
  WorkerTarget,
  connect,
};
