'use strict';
// Sorts a table by the column whose heading is pressed: numbers from the greatest first, texts from A, and once more
// the other way round. What is empty stays at the end.
const texts = new Intl.Collator(undefined, { numeric: true });
for (const button of document.querySelectorAll('th button')) {
  button.addEventListener('click', () => {
    const head = button.closest('th'), numeric = 'number' in head.dataset;
    const before = head.getAttribute('aria-sort');
    const rises = before ? before === 'descending' : !numeric;
    for (const other of head.parentElement.cells) other.removeAttribute('aria-sort');
    head.setAttribute('aria-sort', rises ? 'ascending' : 'descending');
    const body = head.closest('table').tBodies[0];
    const rows = Array.from(body.rows, (row) => {
      const text = row.cells[head.cellIndex].textContent.trim();
      return { row, text, key: numeric ? parseFloat(text) : text };
    });
    rows.sort((a, b) => {
      if (!a.text || !b.text) return !a.text - !b.text;
      const order = numeric ? a.key - b.key : texts.compare(a.key, b.key);
      return rises ? order : -order;
    });
    const sorted = document.createDocumentFragment();
    for (const { row } of rows) sorted.append(row);
    body.append(sorted);
  });
}
