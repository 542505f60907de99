// Filters the groups by what is typed, and sorts a table by the column whose head is clicked.
const filter = document.querySelector('input');
if (filter) filter.oninput = () => {
  for (const group of document.querySelectorAll('details'))
    group.hidden = !group.textContent.toLowerCase().includes(filter.value.toLowerCase());
};
for (const head of document.querySelectorAll('th')) head.onclick = () => {
  const body = head.closest('table').tBodies[0], key = row => row.cells[head.cellIndex];
  const rows = [...body.rows].slice(1);
  rows.sort((a, b) => head.cellIndex ? key(b).dataset.n - key(a).dataset.n
                                     : key(a).textContent.localeCompare(key(b).textContent));
  body.append(...rows);
};
