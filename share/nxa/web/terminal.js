// A module's terminal: xterm.js (DOM renderer) fed by the WebSocket
// /module/NAME/terminal, which the host relays to the module's port. Read-only
// until "type" is on: only then do keystrokes go to the program, unchanged but
// for Enter, which sends CR LF (as a telnet client does: the module's terminal is
// raw, so a lone CR would never end a line a program reads) unless switched off.
'use strict';

const moduleName = decodeURIComponent(location.pathname.replace(/^\/module\//, ''));
const typing = document.getElementById('type');
const crlf = document.getElementById('crlf');
const state = document.getElementById('state');
let socket = null;

function describe() {
  if (!socket || socket.readyState !== WebSocket.OPEN) return;
  state.textContent = 'connected, ' + (typing.checked ? 'typing into the program' : 'read-only');
}

function connect(term) {
  const url = (location.protocol === 'https:' ? 'wss://' : 'ws://') + location.host + location.pathname + '/terminal';
  const decoder = new TextDecoder('utf-8');
  socket = new WebSocket(url, 'nxa-terminal');
  socket.binaryType = 'arraybuffer';
  socket.onopen = describe;
  socket.onmessage = (event) => {
    const bytes = typeof event.data === 'string' ? new TextEncoder().encode(event.data) : event.data;
    term.write(decoder.decode(bytes, {stream: true}));
  };
  socket.onclose = (event) => {
    const reason = event.reason || 'the connection ended (code ' + event.code + ')';
    state.textContent = 'closed: ' + reason;
    term.write('\r\n[console] closed: ' + reason + '\r\n');
  };
}

async function start() {
  document.title = 'nxahost: ' + moduleName;
  document.getElementById('title').textContent = 'Terminal of ' + moduleName;
  const {Terminal} = await commonModules.load('/xterm/lib/', 'public/Terminal');
  // A lone LF starts a new line at its beginning, as a local terminal shows
  // what nc prints (the host's own lines end with LF alone).
  const term = new Terminal({rendererType: 'dom', cols: 100, rows: 30, scrollback: 5000, convertEol: true});
  term.open(document.getElementById('terminal'));
  term.on('data', (data) => {
    if (!typing.checked || !socket || socket.readyState !== WebSocket.OPEN) return;
    socket.send(crlf.checked && data === '\r' ? '\r\n' : data);
  });
  typing.addEventListener('change', () => {
    describe();
    if (typing.checked) term.focus();
  });
  connect(term);
}

start().catch((e) => { state.textContent = 'cannot start the terminal: ' + e; });
