// The operator panel's page. Everything the item says (its text, messages,
// feed entries) is put on the page as text (textContent, form values),
// never as HTML, so an item's text cannot run script here.
'use strict';

const token = new URLSearchParams(window.location.search).get('token') || '';
const $ = (id) => document.getElementById(id);

function request(path, options = {}) {
  const headers = Object.assign({}, options.headers || {});
  if (token) headers['Authorization'] = 'Bearer ' + token;
  return fetch(path, Object.assign({}, options, { headers, cache: 'no-store' }));
}

async function errorText(response) {
  try {
    const body = await response.json();
    if (body && typeof body.error === 'string') return body.error;
  } catch (e) { /* not JSON */ }
  return 'HTTP ' + response.status;
}

// --- the form's checks: the same rules as the panel server's ---------------

const FIELDS = [
  // name, kind, low, high, label
  ['text', 'text', 0, 0, 'Text'],
  ['fontFamily', 'line', 0, 0, 'Font family'],
  ['fontStyle', 'line', 0, 0, 'Font style'],
  ['fontScale', 'number', 0.01, 100, 'Font scale'],
  ['multiLine', 'integer', 0, 64, 'Lines'],
  ['justify', 'word', 0, 0, 'Justify'],
  ['scrollSpeed', 'number', -100, 100, 'Speed'],
  ['shadowBlur', 'number', 0, 100, 'Shadow blur'],
  ['shadowX', 'number', -100, 100, 'Shadow X'],
  ['shadowY', 'number', -100, 100, 'Shadow Y'],
  ['fontColor', 'colour', 0, 0, 'Font colour'],
  ['backgroundColor', 'colour', 0, 0, 'Background colour'],
  ['shadowColor', 'colour', 0, 0, 'Shadow colour'],
  ['fontOpacity', 'number', 0, 1, 'Font opacity'],
  ['backgroundOpacity', 'number', 0, 1, 'Background opacity'],
  ['shadowOpacity', 'number', 0, 1, 'Shadow opacity'],
];
const TEXT_MAX = 16384;
const LINE_MAX = 200;

function byteLength(s) { return new TextEncoder().encode(s).length; }

// The reason a value is refused, or '' when it is good.
function check(kind, value, lo, hi) {
  switch (kind) {
    case 'text':
      return byteLength(value) > TEXT_MAX ? 'longer than ' + TEXT_MAX + ' bytes' : '';
    case 'line':
      if (byteLength(value) > LINE_MAX) return 'longer than ' + LINE_MAX + ' bytes';
      return /[\u0000-\u001f\u007f]/.test(value) ? 'control characters are not allowed' : '';
    case 'colour':
      return /^#?[0-9a-fA-F]{6}$/.test(value) ? '' : 'not a colour (six hex digits, like ff8800)';
    case 'number':
    case 'integer': {
      const pattern = kind === 'integer' ? /^-?[0-9]+$/ : /^-?(?=\.?[0-9])[0-9]*(\.[0-9]*)?$/;
      if (value.length > 32 || !pattern.test(value))
        return kind === 'integer' ? 'not a whole number' : 'not a number';
      const n = Number(value);
      if (!Number.isFinite(n)) return 'not a number';
      return n < lo || n > hi ? 'must be between ' + lo + ' and ' + hi : '';
    }
    case 'word':
      return ['left', 'center', 'right'].includes(value) ? '' : 'must be left, center or right';
  }
  return '';
}

// The form as the JSON the server takes, or {error, field} for the first
// value refused.
function collectForm(newContextOnly) {
  const form = {};
  for (const [name, kind, lo, hi, label] of FIELDS) {
    const input = $('f-' + name);
    input.removeAttribute('aria-invalid');
    let value = input.value;
    if (kind !== 'text') value = value.trim();
    if (value === '' && kind !== 'text') continue;
    const why = check(kind, value, lo, hi);
    if (why) return { error: label + ' (' + name + '): ' + why, field: input };
    form[name] = kind === 'colour' ? value.replace(/^#/, '') : value;
  }
  if (newContextOnly) form.newcontextonly = true;
  return { form };
}

function showMessage(text, kind) {
  const m = $('form-message');
  m.textContent = text;
  m.className = kind;
}

async function sendForm(newContextOnly) {
  const collected = collectForm(newContextOnly);
  if (collected.error) {
    collected.field.setAttribute('aria-invalid', 'true');
    collected.field.focus();
    showMessage(collected.error, 'error');
    return;
  }
  showMessage('Sending…', '');
  try {
    const r = await request('/api/text', {
      method: 'POST',
      headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify(collected.form),
    });
    if (!r.ok) { showMessage('Refused: ' + await errorText(r), 'error'); return; }
    showMessage(newContextOnly ? 'Sent to outputs that start from now on.' : 'Sent to all outputs.', 'ok');
  } catch (e) {
    showMessage('The panel cannot be reached: ' + e.message, 'error');
  }
}

async function reloadItem() {
  try {
    const r = await request('/api/reload', {
      method: 'POST', headers: { 'Content-Type': 'application/json' }, body: '{}',
    });
    showMessage(r.ok ? 'The item file is read again.' : 'Refused: ' + await errorText(r), r.ok ? 'ok' : 'error');
  } catch (e) {
    showMessage('The panel cannot be reached: ' + e.message, 'error');
  }
}

function updateSwatch(input) {
  const swatch = input.nextElementSibling;
  if (!swatch || !swatch.classList.contains('swatch')) return;
  const v = input.value.trim().replace(/^#/, '');
  swatch.style.backgroundColor = /^[0-9a-fA-F]{6}$/.test(v) ? '#' + v : 'transparent';
}

// --- filling the form from the item ----------------------------------------

// Opacities are rounded up, so that the item's truncation of value x 255
// gives back the same byte.
function opacityText(x) { return String(Math.ceil(x * 10000 - 1e-6) / 10000); }
function numberText(x) { return String(Math.round(x * 1e6) / 1e6); }

function fillForm(settings) {
  for (const [name, kind] of FIELDS) {
    const input = $('f-' + name);
    const v = settings[name];
    if (v === undefined) continue;
    if (v === null) input.value = '';
    else if (name.endsWith('Opacity')) input.value = opacityText(v);
    else if (kind === 'number') input.value = numberText(v);
    else input.value = String(v);
    input.removeAttribute('aria-invalid');
    updateSwatch(input);
  }
}

// --- status ------------------------------------------------------------------

let lastSettings = null;
let filled = false;

function bytesText(n) {
  if (n >= 1048576) return (n / 1048576).toFixed(1) + ' MiB';
  if (n >= 1024) return (n / 1024).toFixed(1) + ' KiB';
  return n + ' bytes';
}

function fillList(list, items) {
  const children = items.map((t) => { const li = document.createElement('li'); li.textContent = t; return li; });
  list.replaceChildren(...children);
}

function showStats(s) {
  $('stat-clients').textContent = String(s.clients);
  $('stat-frames').textContent = String(s.frames_served);
  $('stat-fps').textContent = String(s.frames_per_second);
  const m = s.frame_memory || {};
  $('stat-memory').textContent = bytesText(m.bytes || 0) + ' in ' + (m.frames || 0) + ' frames (buffer ' +
    bytesText(m.buffer_bytes || 0) + ')';
  const messages = $('messages');
  const atBottom = messages.scrollTop + messages.clientHeight >= messages.scrollHeight - 4;
  fillList(messages, s.messages || []);
  if (atBottom) messages.scrollTop = messages.scrollHeight;  // follow the newest, unless the operator scrolled up
  const settings = s.settings || {};
  $('current-text').textContent = (settings.text || '').replace(/\u001f/g, '\n');
  lastSettings = settings;
  if (!filled) { fillForm(settings); filled = true; }
  const feed = s.feed;
  $('feed').hidden = !feed;
  if (feed) {
    $('feed-url').textContent = feed.url || '(none)';
    $('feed-fetch').textContent = feed.last_fetch_age === null ? 'not yet' :
      new Date(Date.now() - feed.last_fetch_age * 1000).toLocaleTimeString() + ' (' +
      Math.round(feed.last_fetch_age) + ' s ago)' + (feed.downloading ? ', fetching now' : '');
    $('feed-interval').textContent = feed.interval + ' s';
    fillList($('feed-entries'), feed.entries || []);
  }
}

function setLinkState(ok, text) {
  const s = $('link-state');
  s.textContent = text;
  s.className = 'state ' + (ok ? 'ok' : 'bad');
}

async function pollStats() {
  try {
    const r = await request('/api/stats');
    if (r.ok) { showStats(await r.json()); setLinkState(true, 'attached'); }
    else setLinkState(false, await errorText(r));
  } catch (e) {
    setLinkState(false, 'panel unreachable');
  }
  setTimeout(pollStats, 500);
}

// --- preview -------------------------------------------------------------------

let frameUrl = null;

async function pollFrame() {
  const started = performance.now();
  const [w, h] = $('size').value.split('x');
  try {
    const r = await request('/frame.png?w=' + w + '&h=' + h);
    if (r.ok) {
      const url = URL.createObjectURL(await r.blob());
      const img = $('frame');
      img.src = url;
      if (frameUrl) URL.revokeObjectURL(frameUrl);
      frameUrl = url;
      $('preview-error').textContent = '';
      img.dataset.frames = String(Number(img.dataset.frames || 0) + 1);
    } else {
      $('preview-error').textContent = await errorText(r);
    }
  } catch (e) {
    $('preview-error').textContent = 'panel unreachable';
  }
  const period = 1000 / Number($('rate').value);
  setTimeout(pollFrame, Math.max(0, period - (performance.now() - started)));
}

function applyBackdrop() {
  const preview = $('preview');
  const checker = $('backdrop').value === 'checker';
  preview.classList.toggle('checker', checker);
  preview.style.backgroundColor = checker ? '' : $('backdrop-colour').value;
  $('backdrop-colour').hidden = checker;
}

document.addEventListener('DOMContentLoaded', () => {
  $('text-form').addEventListener('submit', (e) => { e.preventDefault(); sendForm(false); });
  $('send-new').addEventListener('click', () => sendForm(true));
  $('reload').addEventListener('click', reloadItem);
  $('fill').addEventListener('click', () => { if (lastSettings) fillForm(lastSettings); });
  for (const name of ['fontColor', 'backgroundColor', 'shadowColor'])
    $('f-' + name).addEventListener('input', (e) => updateSwatch(e.target));
  $('backdrop').addEventListener('change', applyBackdrop);
  $('backdrop-colour').addEventListener('input', applyBackdrop);
  applyBackdrop();
  pollStats();
  pollFrame();
});
