// The front panel's page: draws the unit from the feed fsusim pushes (server-sent events) and
// turns every click into a `fsusim ctl` line or a `fsusim web` request, shown in the command bar.
'use strict';

const token = new URLSearchParams(location.search).get('token') || '';
const $ = (id) => document.getElementById(id);

function el(tag, attrs = {}, ...children) {
  const node = document.createElement(tag);
  for (const [key, value] of Object.entries(attrs)) {
    if (key === 'onclick' || key === 'onchange') node.addEventListener(key.slice(2), value);
    else if (key === 'text') node.textContent = value;
    else node.setAttribute(key, value);
  }
  for (const child of children) node.append(child);
  return node;
}

// Sends one action ("ctl LINE" or "web ACTION ARG...") and shows the command it is.
async function act(request) {
  $('ctl-result').textContent = '…';
  $('ctl-result').className = 'tag';
  try {
    const reply = await fetch('action?token=' + encodeURIComponent(token), { method: 'POST', body: request });
    const answer = await reply.json();
    $('ctl-line').textContent = answer.command || request;
    const why = (answer.errors || []).join('; ');
    $('ctl-result').textContent = answer.ok ? 'done' + (answer.output ? ': ' + answer.output.trim() : '') : 'refused: ' + why;
    $('ctl-result').className = 'tag ' + (answer.ok ? 'good' : 'bad');
  } catch (error) {
    $('ctl-result').textContent = 'no answer: ' + error;
    $('ctl-result').className = 'tag bad';
  }
}
const ctl = (line) => act('ctl ' + line);
const web = (words) => act('web ' + words);
const button = (label, request, id) => el('button', { text: label, onclick: () => act(request), ...(id ? { id } : {}) });

// The unit's status lines by name ("relay 2") and one field of them.
let status = {};
const field = (name, key) => (status[name] || {})[key];

function build() {
  for (const led of ['run', 'alarm', 'net', '1']) {
    $('leds').append(el('div', { class: 'led', id: 'led-' + led, 'data-state': 'dark' }, el('span', { class: 'lamp' }), el('span', { text: 'LED ' + led })));
  }
  for (const line of ['12v 1', '12v 2', 'power modem']) {
    $('power').append(el('div', { class: 'led', id: line.replace(' ', '-'), 'data-state': 'off' }, el('span', { class: 'lamp' }), el('span', { text: line.toUpperCase().replace('POWER ', 'power ') })));
  }
  for (let n = 1; n <= 8; n++) {
    $('relays').append(el('div', { class: 'relay', id: 'relay-' + n, 'data-state': 'off' }, el('b', { text: 'DO ' + n }), el('span', { class: 'sub' })));
  }
  for (let n = 1; n <= 16; n++) {
    const di = el('button', { class: 'di', id: 'di-' + n, 'data-state': 'open', text: 'DI ' + n });
    di.addEventListener('click', () => ctl(`di ${n} ${di.dataset.state === 'closed' ? 'open' : 'closed'}`));
    $('dis').append(di);
  }
  for (let n = 1; n <= 16; n++) {
    const range = el('input', { type: 'range', min: '0', max: '5.11', step: '0.01', value: '0', id: `ai-${n}-range` });
    const volts = el('input', { type: 'number', min: '0', max: '5.1197', step: '0.01', id: `ai-${n}-volts`, title: 'volts' });
    const amps = el('input', { type: 'number', min: '0', max: '20.478', step: '0.1', id: `ai-${n}-ma`, title: 'milliamperes' });
    range.addEventListener('change', () => ctl(`ai ${n} ${Number(range.value).toFixed(2)}`));
    volts.addEventListener('change', () => ctl(`ai ${n} ${volts.value}`));
    amps.addEventListener('change', () => ctl(`ai ${n} current ${amps.value}`));
    $('ais').append(el('div', { class: 'ai', id: 'ai-' + n }, el('b', { text: 'AI ' + n }), range,
      el('label', {}, volts, ' V'), el('label', {}, amps, ' mA'), el('span', { class: 'reading', id: `ai-${n}-reading` })));
  }
  for (const board of ['board 1', 'board 2', 'env']) {
    const id = board.replace(' ', '-');
    const modes = board === 'env' ? ['on', 'silent', 'noise'] : ['on', 'silent'];
    $('boards').append(el('div', { class: 'board', id }, el('b', { text: board === 'env' ? 'environment board' : 'extension ' + board }),
      el('span', { class: 'tag', id: id + '-state' }), el('span', { class: 'sub', id: id + '-detail' }),
      el('span', { class: 'buttons' }, ...modes.map((mode) => button(mode, `ctl ${board} ${mode}`, `${id}-${mode}`)))));
  }
  const modemActions = [['unplug', 'modem unplug'], ['plug', 'modem plug'], ['AT silent', 'modem silent on'],
    ['AT back', 'modem silent off'], ['link drop', 'modem link-drop'], ['dial', 'modem dial'], ['SIM out', 'modem sim absent'],
    ['SIM in', 'modem sim present'], ['SIM swap', 'modem imsi 460009876543210'], ['deregister', 'modem registered no'],
    ['register', 'modem registered yes'], ['garbage', 'modem garbage']];
  for (const [label, line] of modemActions) $('modem-actions').append(button(label, 'ctl ' + line, 'modem-' + line.split(' ').slice(1).join('-')));
  const signal = el('input', { type: 'number', min: '0', max: '31', id: 'modem-signal-value', title: 'signal 0 to 31' });
  signal.addEventListener('change', () => ctl('modem signal ' + signal.value));
  $('modem-actions').append(el('label', {}, 'signal ', signal));
  for (const mode of ['fix', 'nofix', 'silent', 'noise']) $('receiver-actions').append(button(mode, 'ctl gps ' + mode, 'gps-' + mode));
  $('receiver-actions').append(button('on port 7', 'ctl port 7 receiver', 'gps-receiver'));
  for (const [label, line] of [['cold start', 'gps cold'], ['$GN talker', 'gps talker gn'], ['$GP/$BD talkers', 'gps talker split'],
    ['drop 1 byte in 50', 'gps drop 50'], ['no drops', 'gps drop 0']]) $('receiver-actions').append(button(label, 'ctl ' + line, 'gps-' + line.split(' ').slice(1).join('-')));
  const lat = el('input', { size: '9', id: 'gps-lat', placeholder: 'latitude' });
  const lon = el('input', { size: '9', id: 'gps-lon', placeholder: 'longitude' });
  $('receiver-actions').append(el('form', { id: 'gps-position' }, lat, lon, el('button', { text: 'set position' })));
  $('gps-position').addEventListener('submit', (event) => { event.preventDefault(); ctl(`gps position ${lat.value} ${lon.value}`); });
  for (const [label, words] of [['read AI/DI', 'read-aidi'], ['read GPS', 'read-gps'], ['read GPS signal', 'read-gps-db'],
    ['all outputs on', 'all-outputs on'], ['all outputs off', 'all-outputs off'], ['counters', 'counters']]) {
    $('web-actions').append(button(label, 'web ' + words, 'web-' + words.replace(' ', '-')));
  }
  $('free-ctl').addEventListener('submit', (event) => { event.preventDefault(); ctl($('free-ctl-line').value); });
  $('free-web').addEventListener('submit', (event) => { event.preventDefault(); web($('free-web-line').value); });
  $('uart-hex').addEventListener('change', () => draw(last));
}

const hexText = (hex) => (hex || '').match(/../g) || [];
function bytesShown(hex) {
  const bytes = hexText(hex);
  if ($('uart-hex').checked) return bytes.join(' ');
  return bytes.map((b) => { const c = parseInt(b, 16); return c === 10 ? '⏎' : c === 13 ? '' : c >= 32 && c < 127 ? String.fromCharCode(c) : '·'; }).join('');
}
const toHex = (text) => Array.from(new TextEncoder().encode(text)).map((b) => b.toString(16).padStart(2, '0').toUpperCase()).join('');

// The ports' rows, made when a port first shows and kept (with what is typed in them) after.
let rates = {};
const portRows = {};
function portRow(name) {
  const id = name.replace(' ', '-');
  const cells = ['for', 'mode', 'line', 'in', 'out', 'sent', 'got'].map((key) => el('td', { id: `${id}-${key}` }));
  const typing = el('td');
  if (name.startsWith('uart')) {
    const text = el('input', { id: id + '-text', size: '14', placeholder: 'text, Enter adds CR LF' });
    const send = el('button', { id: id + '-send', text: 'send' });
    const number = name.split(' ')[1];
    const go = () => { if (text.value !== '') ctl(`uart ${number} send ${toHex(text.value + '\r\n')}`); };
    send.addEventListener('click', go);
    text.addEventListener('keydown', (event) => { if (event.key === 'Enter') go(); });
    const mode = el('select', { id: id + '-end', title: 'far end' }, ...['loopback', 'silent', 'terminal'].map((m) => el('option', { text: m })));
    mode.addEventListener('change', () => ctl(`uart ${number} ${mode.value}`));
    typing.append(text, send, mode);
  }
  return el('tr', { id }, el('td', { text: name }), ...cells, typing);
}

function drawUarts(now) {
  const body = $('uarts').tBodies[0];
  const names = Object.keys(status).filter((name) => /^(uart|port) \d+$/.test(name))
    .sort((a, b) => (a[0] > b[0]) - (a[0] < b[0]) || parseInt(a.split(' ')[1]) - parseInt(b.split(' ')[1]));
  if (body.dataset.names !== names.join(',')) {
    body.replaceChildren(...names.map((name) => (portRows[name] ??= portRow(name))));
    body.dataset.names = names.join(',');
  }
  for (const name of names) {
    const id = name.replace(' ', '-');
    const s = status[name];
    const before = rates[name];
    const sent = Number(s.from_sdk || 0);
    const got = Number(s.to_sdk || 0);
    if (!before || now - before.at >= 900) {
      if (before) {
        const seconds = (now - before.at) / 1000;
        $(`${id}-in`).textContent = Math.round((sent - before.sent) / seconds);
        $(`${id}-out`).textContent = Math.round((got - before.got) / seconds);
      }
      rates[name] = { at: now, sent, got };
    }
    $(`${id}-for`).textContent = s.for || '';
    $(`${id}-mode`).textContent = (s.mode || '') + (s.terminal ? ' ' + s.terminal : '');
    const end = $(`${id}-end`);
    if (end && document.activeElement !== end && s.mode) end.value = s.mode;
    $(`${id}-line`).textContent = `${s.speed || ''} ${s.format || ''}${Number(s.dropped) ? ' dropped ' + s.dropped : ''}`;
    $(`${id}-sent`).textContent = bytesShown(s.recent_from_sdk);
    $(`${id}-got`).textContent = bytesShown(s.recent_to_sdk);
  }
}

function setState(id, state, detail) {
  const node = $(id);
  if (!node) return;
  if (node.dataset.state !== (state || 'unknown')) node.dataset.state = state || 'unknown';
  const sub = node.querySelector('.sub');
  if (sub && detail !== undefined) sub.textContent = detail;
}

// Key and value pairs, made once and then only their values changed.
function fields(list, entries) {
  if (list.children.length !== 2 * entries.length) {
    list.replaceChildren(...entries.flatMap(([key]) => [el('dt', { text: key }), el('dd', { id: list.id + '-' + key.replace(/ /g, '-') })]));
  }
  entries.forEach(([, value], i) => { list.children[2 * i + 1].textContent = value ?? '–'; });
}

let last = null;
function draw(feed) {
  if (!feed) return;
  last = feed;
  status = feed.status || {};
  const up = 'board up' in status;
  $('board-state').textContent = feed.status === null ? 'no board' : up ? 'board up' : 'board down';
  $('board-state').className = 'tag ' + (up ? 'good' : 'bad');
  $('root').textContent = feed.root;
  for (const led of ['run', 'alarm', 'net', '1']) setState('led-' + led, field('led ' + led, 'state'));
  for (const line of ['12v 1', '12v 2', 'power modem']) setState(line.replace(' ', '-'), field(line, 'state'));
  for (let n = 1; n <= 8; n++) setState('relay-' + n, field('relay ' + n, 'state'), field('relay ' + n, 'on') ? `${field('relay ' + n, 'on')} #${field('relay ' + n, 'output')}` : 'not fitted');
  for (let n = 1; n <= 16; n++) setState('di-' + n, field('di ' + n, 'state'));
  for (let n = 1; n <= 16; n++) {
    const volts = field('ai ' + n, 'volts');
    const ma = field('ai ' + n, 'milliamps');
    $(`ai-${n}-reading`).textContent = volts === undefined ? '' : `${volts} V  ${ma} mA`;
    const range = $(`ai-${n}-range`);
    if (volts !== undefined && document.activeElement !== range) range.value = volts;
  }
  for (const board of ['board 1', 'board 2', 'env']) {
    const id = board.replace(' ', '-');
    const s = status[board] || {};
    $(id + '-state').textContent = s.state || 'absent';
    $(id + '-state').className = 'tag ' + (s.state === 'on' ? 'good' : 'bad');
    $(id + '-detail').textContent = board === 'env' ? ` polls ${s.polls || 0}, answers ${s.answers || 0}, garbled ${s.garbled || 0}`
      : ` frames in ${s.frames_in || 0}, out ${s.frames_out || 0}, bad ${s.bad_frames || 0}`;
  }
  const m = status.modem || {};
  const link = status['link ppp0'] || {};
  fields($('modem'), [['model', m.model && `${m.model} (row ${m.row})`], ['on USB', m.state === 'unplugged' ? 'no' : m.usb],
    ['state', m.state], ['SIM', m.sim], ['registered', m.registered], ['signal', m.signal && `${m.signal} (${m.net})`],
    ['link', link.state || 'down'], ['address', link.address], ['IMSI', m.imsi], ['IMEI', m.imei]]);
  const r = status.receiver || {};
  fields($('receiver'), [['output', r.output], ['tracks', r.constellations], ['position', r.latitude && `${r.latitude}, ${r.longitude}, ${r.altitude} m`],
    ['time offset', r.time_offset && r.time_offset + ' s'], ['talker', r.talker], ['bytes dropped', r.drop && r.drop !== '0' ? `1 in ${r.drop}` : 'none'],
    ['batches', r.batches]]);
  const w = status.watchdog || {};
  fields($('watchdog'), [['armed', w.armed], ['interval', w.interval && w.interval !== '-' ? w.interval + ' s' : '-'],
    ['time left', w.left && w.left !== '-' ? w.left + ' s' : '-'], ['reboots asked', w.reboots]]);
  drawSky(r);
  drawUarts(performance.now());
  const files = JSON.stringify(feed.web || []);
  if ($('web').dataset.drawn !== files) {
    $('web').dataset.drawn = files;
    $('web').replaceChildren(...(feed.web || []).map((file) => el('div', { class: 'webfile' }, el('b', { text: file.file }), el('pre', { text: file.text }))));
  }
  for (const id of ['log', 'calls']) {  // kept at the end unless scrolled back
    const tail = $(id);
    const atEnd = tail.scrollTop + tail.clientHeight >= tail.scrollHeight - 4;
    if (tail.textContent !== (feed[id] || '')) tail.textContent = feed[id] || '';
    if (atEnd) tail.scrollTop = tail.scrollHeight;
  }
  $('errors').replaceChildren(...(status.errors || []).map((e) => el('li', { text: `${e.line || ''}: ${e.why || ''}` })));
}

// Satellites in view per constellation with their signal bars (CN0 in dB-Hz); 0 is seen, not used.
function drawSky(r) {
  const sky = $('sky');
  if (sky.dataset.drawn === `${r.gps}/${r.bd}`) return;
  sky.dataset.drawn = `${r.gps}/${r.bd}`;
  sky.replaceChildren();
  for (const system of ['gps', 'bd']) {
    const list = (r[system] || '').split(',').filter(Boolean).map((entry) => entry.split(':').map(Number));
    const used = list.filter(([, cn0]) => cn0 > 0).length;
    sky.append(el('div', { class: 'sky', id: 'sky-' + system }, el('b', { text: `${system === 'gps' ? 'GPS' : 'BeiDou'}: ${used} used of ${list.length} in view` }),
      el('div', { class: 'bars' }, ...list.map(([id, cn0]) => {
        const bar = el('span', { class: 'bar', title: `${id}: ${cn0} dB-Hz` }, el('i'), el('small', { text: id }));
        bar.firstChild.style.height = Math.min(100, cn0 * 2) + '%';
        return bar;
      }))));
  }
}

function connect() {
  const events = new EventSource('events?token=' + encodeURIComponent(token));
  events.onmessage = (event) => draw(JSON.parse(event.data));
  events.onerror = () => { $('board-state').textContent = 'panel gone'; $('board-state').className = 'tag bad'; };
}

build();
connect();
