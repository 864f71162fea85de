// The car's panel. Everything shown comes from the car's record (the same
// entries as --record), live from /events or, in a saved timeline, from
// RECORD; every button sends a console command line to /command, so the
// panel can do exactly what the console can and nothing else.
'use strict';
const $ = (id) => document.getElementById(id);
const LED = ['off', 'solid green', 'blinking green', 'red'];
const saved = typeof RECORD !== 'undefined';
let start = null;

function reset() {
  start = null;
  for (const id of ['timeline', 'prompts', 'log']) $(id).textContent = '';
  showLed(0);
  showEcall({});
  $('service').textContent = 'no';
  $('syserror').textContent = 'none';
}

function showLed(status) {
  const name = LED[status] || 'unknown';
  $('led').dataset.led = name;
  $('led-text').textContent = name;
}

function showEcall(s) {
  $('mode').textContent = s.ecallModeActive ? 'yes' : 'no';
  $('type').textContent = s.type || 'none';
  $('event').textContent = s.ecall ? `${s.event}: ${s.eventdetail}` : 'NONE';
  $('number-called').textContent = s.phoneNumber || '-';
  if (s.type === 'systemError') $('syserror').textContent = s.eventdetail || s.event;
}

// The car's part of a "status" line: phone=on antenna=normal number=911
// call=idle, and the vehicle configuration's testnumber=5550100.
function showStatus(line) {
  for (const key of ['phone', 'antenna', 'number', 'call', 'testnumber']) {
    const m = line.match(new RegExp(`(?:^| )${key}=(\\S*)`));
    if (m) $(key).textContent = m[1];
  }
}

// One question at a time, and one more if something changed meanwhile.
let asking = false;
let askAgain = false;
function refreshStatus() {
  if (asking) {
    askAgain = true;
    return;
  }
  asking = true;
  fetch('status').then((r) => r.text()).then(showStatus, () => {}).finally(() => {
    asking = false;
    if (askAgain) {
      askAgain = false;
      refreshStatus();
    }
  });
}

function parse(text) {
  try { return JSON.parse(text); } catch { return null; }
}

const hex = (bytes) => (bytes || []).map((b) => b.toString(16).padStart(2, '0')).join(' ');

// One readable line per entry, and what the entry changes on the panel.
function describe(e) {
  switch (e.kind) {
    case 'request': return `${e.service}.${e.method} ${e.params}${e.reply ? ' => ' + e.reply.trim() : ''}`;
    case 'signal': return `${e.service}.${e.name} ${e.data.trim()}`;
    case 'ecall': case 'ecallProgress': return `ecallService.${e.kind} ${e.data.trim()}`;
    case 'channel':
      if (e.bytes.length === 2 && e.bytes[0] === 1) return `mirror LED ${LED[e.bytes[1]] || e.bytes[1]}`;
      return `from the service: ${hex(e.bytes)}`;
    case 'vehicle': return e.event === 'button' ? `${e.name}::${e.value}` : `${e.event} ${hex(e.bytes)}`;
    case 'command': return `${e.from === 'panel' ? 'panel' : 'console'}> ${e.line}  => ${e.reply}`;
    case 'peer': return `${e.service} ${e.state}`;
    case 'log': return e.line;
    default: return e.file || e.url || e.event || '';
  }
}

function apply(e) {
  if (e.kind === 'channel' && e.bytes.length === 2 && e.bytes[0] === 1) showLed(e.bytes[1]);
  if (e.kind === 'ecall') showEcall(parse(e.data) || {});
  if (e.kind === 'peer' && e.service === 'ecallService') $('service').textContent = e.state === 'up' ? 'yes' : 'no';
  if (e.kind === 'log') $('log').textContent += e.line + '\n';
  // The phone's state is the car's own: asked again whenever it may change.
  if (e.kind === 'command' && e.line.trim() === 'status') showStatus(e.reply);
  else if (!saved && (e.kind === 'command' || (e.kind === 'signal' && e.service === 'EmbeddedPhone'))) refreshStatus();
  if (e.kind === 'request' && e.method === 'ttsReadout') {
    const p = parse(e.params) || {};
    const li = document.createElement('li');
    li.textContent = `(${p.readoutType}) ${p.data} `;
    $('prompts').append(li);
  }
  if (e.kind === 'speech' && e.ok) {
    const name = e.file.split('/').pop();
    const li = $('prompts').children[parseInt(name, 10) - 1];
    const audio = document.createElement('audio');
    audio.controls = true;
    audio.src = saved ? 'file://' + e.file : 'speech/' + encodeURIComponent(name);
    if (li) li.append(audio);
  }
}

function add(e) {
  if (start === null) start = e.t;
  apply(e);
  const row = document.createElement('tr');
  row.className = e.kind;
  for (const text of [(e.t - start).toFixed(3), e.kind, describe(e)]) {
    const td = document.createElement('td');
    td.textContent = text;
    row.append(td);
  }
  const box = $('timeline-box');
  const atEnd = box.scrollTop + box.clientHeight >= box.scrollHeight - 4;
  $('timeline').append(row);
  if (atEnd) box.scrollTop = box.scrollHeight;
}

// Commands go one after the other, in the order given.
let queue = Promise.resolve();
function send(line) {
  queue = queue.then(() => fetch('command', { method: 'POST', body: line })
    .then((r) => r.text(), (err) => `error ${err}`)
    .then((text) => { $('reply').textContent = text.trim(); }));
  return queue;
}

function liveControls(table) {
  const known = new Set(table.commands.filter((c) => c.panel).map((c) => c.name));
  for (const kind of table.impactKinds)
    for (const path of ['can', 'serial']) {
      const b = document.createElement('button');
      b.textContent = `${kind} ${path === 'can' ? 'CAN' : 'ser'}`;
      b.dataset.command = `crash ${kind} ${path}`;
      $('crashes').append(b);
    }
  for (const b of document.querySelectorAll('[data-command]')) {
    b.disabled = !known.has(b.dataset.command.split(' ')[0]);
    b.addEventListener('click', () => send(b.dataset.command));
  }
  // A held button stays pressed for as long as the pointer is down.
  for (const b of document.querySelectorAll('button.hold')) {
    const release = () => {
      if (!b.classList.contains('pressed')) return;
      b.classList.remove('pressed');
      send(`button ${b.dataset.button} release`);
    };
    b.addEventListener('pointerdown', (ev) => {
      b.setPointerCapture(ev.pointerId);
      b.classList.add('pressed');
      send(`button ${b.dataset.button} press`);
    });
    b.addEventListener('pointerup', release);
    b.addEventListener('pointercancel', release);
    b.addEventListener('contextmenu', (ev) => ev.preventDefault());
  }
  const locs = [...document.querySelectorAll('input.loc')];
  for (const box of locs) box.addEventListener('change', () => send('loc ' + locs.map((c) => (c.checked ? 1 : 0)).join(' ')));
  $('console').addEventListener('submit', (ev) => { ev.preventDefault(); send($('line').value); });
  $('number-form').addEventListener('submit', (ev) => {
    ev.preventDefault();
    send(`set number ${$('number-input').value || 'none'}`);
  });
}

if (saved) {
  document.body.classList.add('saved');
  for (const control of document.querySelectorAll('button, input')) control.disabled = true;
  $('link').textContent = 'saved timeline';
  reset();
  RECORD.forEach(add);
} else {
  fetch('commands').then((r) => r.json()).then(liveControls);
  // The whole record comes again on every connection: after the car
  // restarted the page shows the new car only.
  const events = new EventSource('events');
  events.onopen = () => {
    reset();
    $('link').textContent = 'live';
    $('link').classList.add('live');
    refreshStatus();
  };
  events.onerror = () => {
    $('link').textContent = 'reconnecting';
    $('link').classList.remove('live');
  };
  events.onmessage = (m) => add(JSON.parse(m.data));
}
