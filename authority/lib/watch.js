'use strict';

// Asks for the page again and takes over its live parts. A part that has not changed
// stays as it is, so that what somebody reads, has marked or has focused is not lost.

const INTERVAL_MS = 2000;
const TIMEOUT_MS = 20000;
const pause = document.getElementById('pause');
const still = matchMedia('(prefers-reduced-motion: reduce)');

async function fetchPage() {
  // Not by a relative address: where the page was opened with a login in its address, that is refused.
  const address = location.origin + location.pathname;
  const answer = await fetch(address, {cache: 'no-store', signal: AbortSignal.timeout(TIMEOUT_MS)});
  if (!answer.ok) {
    throw new Error(`it answers with status ${answer.status}`);
  }
  return new DOMParser().parseFromString(await answer.text(), 'text/html');
}

function takeOver(part, fresh) {
  const known = new Set(Array.from(part.children, (row) => row.dataset.key));
  part.replaceChildren(...fresh.childNodes);
  for (const row of part.children) {
    if (!known.has(row.dataset.key) && !still.matches) {
      row.animate({backgroundColor: ['var(--fresh)', 'transparent']}, INTERVAL_MS);
    }
  }
}

function show(page) {
  for (const part of document.querySelectorAll('[data-live]')) {
    const fresh = page.getElementById(part.id);
    if (!part.isEqualNode(fresh)) {
      takeOver(part, fresh);
    }
  }
}

async function keepFresh() {
  if (!document.hidden && pause.ariaPressed !== 'true') {
    try {
      show(await fetchPage());
    } catch (failure) {
      const time = new Date().toISOString().slice(11, 19);
      document.getElementById('status').textContent = `No answer from the authority at ${time}: ${failure.message}`;
    }
  }
  setTimeout(keepFresh, INTERVAL_MS);
}

pause.hidden = false;
pause.addEventListener('click', () => {
  pause.ariaPressed = String(pause.ariaPressed !== 'true');
});
setTimeout(keepFresh, INTERVAL_MS);
