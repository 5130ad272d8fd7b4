// Loads a library written as CommonJS modules into the page without a
// bundler: fetches a module and every module it requires (relative names),
// then runs them, each once, in the order they are required.
'use strict';

const commonModules = (() => {
  const sources = new Map();
  const loaded = new Map();
  let root = '';

  // The module `name` ("./Buffer", "../common/Types") as seen from `from`.
  function resolve(from, name) {
    const parts = from.split('/');
    parts.pop();
    for (const part of name.split('/')) {
      if (part === '..') parts.pop();
      else if (part !== '.') parts.push(part);
    }
    return parts.join('/');
  }

  async function fetchWithRequired(path) {
    if (sources.has(path)) return;
    sources.set(path, null);
    const response = await fetch(root + path + '.js');
    if (!response.ok) throw new Error('cannot load ' + path + ': ' + response.status);
    const text = await response.text();
    sources.set(path, text);
    const required = Array.from(text.matchAll(/require\("(\.[^"]*)"\)/g), (m) => resolve(path, m[1]));
    await Promise.all(required.map(fetchWithRequired));
  }

  function run(path) {
    if (loaded.has(path)) return loaded.get(path).exports;
    const module = {exports: {}};
    loaded.set(path, module);
    const body = new Function('require', 'module', 'exports', sources.get(path));
    body((name) => run(resolve(path, name)), module, module.exports);
    return module.exports;
  }

  return {
    // The exports of the module `path` below the URL `base`.
    async load(base, path) {
      root = base;
      await fetchWithRequired(path);
      return run(path);
    },
  };
})();
