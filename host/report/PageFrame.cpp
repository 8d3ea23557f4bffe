// The page's style and script, and its larger building blocks.
#include "host/report/PageFrame.h"

namespace quorvel::host {

namespace {

// Bars are drawings, whose fills are printed; backgrounds often are not.
constexpr const char* kStyle = R"css(
:root{color-scheme:light dark;--page:#fff;--ink:#1b1f24;--soft:#59636e;--line:#dde1e6;--fill:#f5f7f9;
--good:#1f7a45;--warn:#8a5a00;--bad:#b3261e;--mark:#fff4cc;--s0:#9aa4af;--s1:#c58b2a;--s2:#8b6cc1;
--s3:#2f73c0;--s4:#2f9c95;--s5:#4c9a4a;--s6:#d1693f;--s7:#b0578d;--s8:#66727f;--s9:#c9d0d7}
@media (prefers-color-scheme:dark){:root{--page:#14171a;--ink:#e4e7ea;--soft:#9aa4ae;--line:#2c3238;
--fill:#1c2024;--good:#6cc08b;--warn:#e0b050;--bad:#f2897f;--mark:#3d3617;--s0:#7d8791;--s1:#d6a04a;
--s2:#a88be0;--s3:#5a9be6;--s4:#4fbdb5;--s5:#6fbd6b;--s6:#e58a62;--s7:#d07fb0;--s8:#98a4b0;--s9:#3a424a}}
*{box-sizing:border-box}
body{margin:0 auto;max-width:76rem;padding:2.5rem 1.5rem 4rem;background:var(--page);color:var(--ink);
font:15px/1.5 system-ui,-apple-system,"Segoe UI",Roboto,"Helvetica Neue",Arial,sans-serif;
font-variant-numeric:tabular-nums}
.over{color:var(--soft);margin:0}
h1{font-size:1.6rem;line-height:1.3;font-weight:600;margin:.15rem 0 .5rem;max-width:46rem;
overflow-wrap:anywhere}
h2{font-size:1.1rem;font-weight:600;margin:0 0 .6rem}
section{margin-top:2.75rem}
p{margin:.4rem 0;max-width:46rem}
.facts,.note,small{color:var(--soft)}
.facts{overflow-wrap:anywhere}
small{font-size:.87rem;display:block;overflow-wrap:anywhere}
dl.totals{display:grid;grid-template-columns:repeat(auto-fit,minmax(7.5rem,1fr));margin:1.75rem 0 0;
border-top:1px solid var(--line);border-bottom:1px solid var(--line)}
dl.totals div{padding:.7rem 1rem .7rem 0;display:flex;flex-direction:column-reverse;
justify-content:flex-end}
dl.totals dt{color:var(--soft);font-size:.87rem}
dl.totals dd{margin:0;font-size:1.45rem;font-weight:600;line-height:1.25}
.good{color:var(--good)}.warn{color:var(--warn)}.bad{color:var(--bad)}
.scroll{overflow-x:auto}
table{border-collapse:collapse;width:100%}
th{text-align:left;font-weight:500;color:var(--soft);font-size:.87rem;white-space:nowrap}
th,td{padding:.45rem 1.2rem .45rem 0;border-bottom:1px solid var(--line);vertical-align:top}
th:last-child,td:last-child{padding-right:0}
td{overflow-wrap:anywhere}
.n{text-align:right;white-space:nowrap;overflow-wrap:normal}
tr:target td{background:var(--mark)}
th button{font:inherit;color:inherit;background:none;border:0;padding:0;cursor:pointer}
th button:hover,a:hover{color:var(--ink);text-decoration:underline}
th[aria-sort] button{color:var(--ink);font-weight:600}
th[aria-sort=ascending] button::after{content:" \2191"}
th[aria-sort=descending] button::after{content:" \2193"}
input[type=search]{font:inherit;color:inherit;background:var(--fill);border:1px solid var(--line);
border-radius:6px;padding:.35rem .7rem;width:min(22rem,100%);margin-bottom:.5rem}
.found{color:var(--soft);margin-left:.8rem}
a{color:inherit;text-decoration:none}
details{margin-top:.2rem}
summary{color:var(--soft);font-size:.87rem;cursor:pointer}
pre{font:12px/1.5 ui-monospace,SFMono-Regular,Menlo,Consolas,monospace;background:var(--fill);
padding:.7rem .9rem;margin:.4rem 0;border-radius:6px;white-space:pre-wrap;overflow-wrap:anywhere;
max-height:26rem;overflow:auto}
svg{display:block}
#containers{table-layout:fixed;min-width:56rem}
#containers th:nth-child(1){width:21%}#containers th:nth-child(2){width:6rem}
#containers th:nth-child(4){width:25%}#containers th:nth-child(5){width:11%}
#containers th:nth-child(6){width:5rem}
.legend{display:flex;flex-wrap:wrap;gap:.25rem 1.4rem;margin:.7rem 0 0;padding:0;list-style:none;
color:var(--soft);font-size:.87rem}
.legend svg{display:inline-block;margin-right:.45rem;vertical-align:-1px}
.legend b{color:var(--ink);font-weight:500}
.run{display:grid;grid-template-columns:minmax(8rem,16rem) minmax(3rem,1fr) minmax(8rem,3fr) 5rem;
gap:0 1rem;align-items:center;font-size:.87rem;padding:.16rem 0}
.run.head{color:var(--soft);border-bottom:1px solid var(--line);padding-bottom:.3rem;
margin-bottom:.3rem}
.run>:first-child{overflow:hidden;text-overflow:ellipsis;white-space:nowrap}
.bars .run{grid-template-columns:minmax(7rem,11rem) 1fr 5rem}
.s0{fill:var(--s0)}.s1{fill:var(--s1)}.s2{fill:var(--s2)}.s3{fill:var(--s3)}.s4{fill:var(--s4)}
.s5{fill:var(--s5)}.s6{fill:var(--s6)}.s7{fill:var(--s7)}.s8{fill:var(--s8)}.s9{fill:var(--s9)}
.rail{fill:var(--fill)}.at{fill:var(--soft)}.stop{fill:var(--bad)}
@media (max-width:640px){body{padding:1.5rem 1rem 3rem}h1{font-size:1.3rem}
.run{grid-template-columns:1fr 4.5rem}.run>:nth-child(2){display:none}
.run>:nth-child(3){grid-row:2;grid-column:1/3;margin-bottom:.35rem}
.bars .run>:nth-child(2){display:block;grid-row:2;grid-column:1/3}
.bars .run>:nth-child(3){grid-row:1;grid-column:2;margin:0}
.scroll table{min-width:36rem}.scroll #containers{min-width:0}#containers thead{display:none}#containers tr{display:block;padding:.6rem 0;
border-bottom:1px solid var(--line)}#containers td{display:block;border:0;padding:.1rem 0;
text-align:left}#containers td:empty{display:none}
#containers td:nth-child(4)::before{content:"Kept: ";color:var(--soft)}
#containers td:nth-child(5)::before{content:"Went: ";color:var(--soft)}}
@media print{body{max-width:none;padding:0;font-size:10pt}section{margin-top:1.5rem}
input,.found{display:none}tr,.run{break-inside:avoid}pre{max-height:none}}
)css";

// Sorting keeps equal rows in their order; numbers come from data-v.
constexpr const char* kScript = R"js(
'use strict';
for (const table of document.querySelectorAll('table.sort')) {
  const body = table.tBodies[0], heads = [...table.tHead.rows[0].cells];
  const key = cell => cell.dataset.v === undefined ? cell.textContent.toLowerCase() : +cell.dataset.v;
  heads.forEach((head, column) => {
    const button = document.createElement('button');
    button.textContent = head.textContent;
    head.replaceChildren(button);
    button.onclick = () => {
      const up = head.getAttribute('aria-sort') !== 'ascending';
      for (const other of heads) other.removeAttribute('aria-sort');
      head.setAttribute('aria-sort', up ? 'ascending' : 'descending');
      const rows = [...body.rows].map(row => [key(row.cells[column]), row]);
      rows.sort(([a], [b]) => (a < b ? -1 : a > b ? 1 : 0) * (up ? 1 : -1));
      body.append(...rows.map(([, row]) => row));
    };
  });
  if (!table.classList.contains('search')) continue;
  const input = document.createElement('input'), found = document.createElement('span');
  input.type = 'search';
  input.placeholder = 'Search';
  input.setAttribute('aria-label', 'Search this table');
  found.className = 'found';
  found.setAttribute('aria-live', 'polite');
  table.parentNode.before(input, found);
  let texts;
  input.oninput = () => {
    texts ??= new Map([...body.rows].map(row => [row, row.textContent.toLowerCase()]));
    const wanted = input.value.toLowerCase();
    let shown = 0;
    for (const [row, text] of texts) shown += !(row.hidden = !text.includes(wanted));
    found.textContent = wanted ? `${shown} of ${texts.size} rows` : '';
  };
}
)js";

}  // namespace

// The policy lets no text of the page fetch anything, whatever it manages to become.
// The style and the script are in the page: a report is one file that can be sent on and opened
// without a network.
std::string PageAround(const std::string& title, const std::string& body) {
  std::string page =
      "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
      "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
      "style-src 'unsafe-inline'; script-src 'unsafe-inline'\">\n<title>";
  page += title + "</title>\n<style>" + kStyle + "</style>\n</head>\n<body>\n" + body;
  return page + "<script>" + kScript + "</script>\n</body>\n</html>\n";
}

// A section without contents has no heading either.
std::string Section(const std::string& heading, const std::string& body) {
  if (body.empty()) return {};
  return "<section>\n<h2>" + heading + "</h2>\n" + body + "</section>\n";
}

// The key is for scripts and tests that read a page; its label is for people.
std::string Total(const char* key, const std::string& label, const std::string& value,
                  const char* tone) {
  return "<div><dt>" + label + "</dt><dd class=\"" + tone + "\" data-k=\"" + key + "\">" + value +
         "</dd></div>\n";
}

// A table wider than the window scrolls inside its own box, so that the page does not.
std::string Table(const char* id, const std::vector<std::string>& headings, const std::string& rows,
                  bool searchable) {
  std::string table = "<div class=\"scroll\"><table id=\"" + std::string(id) + "\" class=\"sort" +
                      (searchable ? " search" : "") + "\">\n<thead><tr>";
  for (const std::string& heading : headings) {
    // Numbers stand under their heading.
    const bool isNumber = heading.starts_with('#');
    table += isNumber ? "<th class=\"n\">" + heading.substr(1) : "<th>" + heading;
    table += "</th>";
  }
  return table + "</tr></thead>\n<tbody>\n" + rows + "</tbody>\n</table></div>\n";
}

std::string Note(const std::string& html) { return "<p class=\"note\">" + html + "</p>\n"; }

}  // namespace quorvel::host
