// The status page: the host's /status.json once a second, one row per
// module, a restart button that asks for a second click to confirm.
'use strict';

const kRefreshMs = 1000;
const kConfirmMs = 5000;

function uptimeText(seconds) {
  const s = Math.floor(seconds);
  if (s < 120) return s + 's';
  if (s < 7200) return Math.floor(s / 60) + 'm';
  return Math.floor(s / 3600) + 'h';
}

function stateText(module) {
  if (module.state === 'restarting' && module.restart_in !== undefined) {
    return 'restarting in ' + Math.ceil(module.restart_in) + ' s';
  }
  return module.state;
}

// The cells of a module's row, as nxactl status shows them.
function cellsOf(module) {
  const running = module.state === 'running';
  return {
    port: String(module.port),
    state: stateText(module),
    pid: running ? String(module.pid) : '-',
    uptime: running ? uptimeText(module.uptime) : '-',
    restarts: String(module.restarts),
    last_end: module.last_end || '-',
    clients: String(module.clients),
    subscribers: String(module.subscribers),
    bytes_out: String(module.bytes_out),
    chunks_lost: String(module.chunks_lost),
  };
}

function say(text) {
  document.getElementById('answer').textContent = text;
}

async function restart(name, button) {
  if (button.dataset.armed !== 'yes') {
    button.dataset.armed = 'yes';
    button.textContent = 'Confirm restart';
    setTimeout(() => { button.dataset.armed = ''; button.textContent = 'Restart'; }, kConfirmMs);
    return;
  }
  button.dataset.armed = '';
  button.textContent = 'Restart';
  try {
    const response = await fetch('/module/' + encodeURIComponent(name) + '/restart', {method: 'POST'});
    const answer = await response.json();
    say(answer.ok ? 'module ' + name + ' restarted at ' + new Date().toLocaleTimeString()
                  : 'restart of ' + name + ' refused: ' + answer.error);
  } catch (e) {
    say('restart of ' + name + ' failed: ' + e);
  }
  refresh();
}

function newRow(name) {
  const row = document.createElement('tr');
  row.id = 'module-' + name;
  row.dataset.module = name;
  const head = document.createElement('th');
  head.scope = 'row';
  const link = document.createElement('a');
  link.href = '/module/' + encodeURIComponent(name);
  link.textContent = name;
  link.title = 'terminal of ' + name;
  head.appendChild(link);
  row.appendChild(head);
  for (const field of Object.keys(cellsOf({}))) {
    const cell = document.createElement('td');
    cell.dataset.field = field;
    row.appendChild(cell);
  }
  const actions = document.createElement('td');
  const button = document.createElement('button');
  button.className = 'restart';
  button.textContent = 'Restart';
  button.setAttribute('aria-label', 'restart ' + name);
  button.addEventListener('click', () => restart(name, button));
  actions.appendChild(button);
  row.appendChild(actions);
  return row;
}

function show(modules) {
  const body = document.querySelector('#modules tbody');
  const seen = new Set();
  for (const module of modules) {
    seen.add(module.name);
    let row = document.getElementById('module-' + module.name);
    if (!row) row = body.appendChild(newRow(module.name));
    row.dataset.state = module.state;
    const cells = cellsOf(module);
    for (const cell of row.querySelectorAll('td[data-field]')) cell.textContent = cells[cell.dataset.field];
  }
  for (const row of Array.from(body.rows)) {
    if (!seen.has(row.dataset.module)) row.remove();
  }
}

// One line on the package: what runs, whether it is on probation, the last
// good one and whether packages are checked, as nxactl package shows them.
function packageText(pkg) {
  if (!pkg) return '';
  const named = (info) => (info && info.version ? info.version : '-') +
      (info && info.key_id ? ' (key ' + info.key_id + ')' : '');
  const parts = ['package ' + (pkg.installed ? named(pkg.installed) : 'none')];
  if (pkg.probation_until !== undefined) parts.push('on probation for ' + Math.ceil(pkg.probation_left) + ' s');
  parts.push('last good ' + (pkg.last_good ? named(pkg.last_good) : 'none'));
  parts.push(pkg.checked ? 'signatures checked' : 'signatures not checked');
  return parts.join(', ');
}

async function refresh() {
  const updated = document.getElementById('updated');
  try {
    const response = await fetch('/status.json', {cache: 'no-store'});
    const status = await response.json();
    show(status.modules);
    document.getElementById('package').textContent = packageText(status.package);
    updated.textContent = status.modules.length + ' modules, as of ' + new Date().toLocaleTimeString();
  } catch (e) {
    updated.textContent = 'the host does not answer (' + e + ')';
  }
}

refresh();
setInterval(refresh, kRefreshMs);
