#pragma once

namespace tavro::host {

/// The page of --report: one HTML file that needs nothing else, neither network nor script.
/// report.cpp fills the names in double braces.
inline constexpr const char* reportTemplate = R"html(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; img-src data:; style-src 'unsafe-inline'">
<title>{{title}}</title>
<style>
:root { color-scheme: light dark; --ink: #1b1f24; --dim: #57606a; --paper: #ffffff; --line: #d0d7de;
  --bar: #1f6f43; --soft: #9ccfb2; --card: #f6f8fa; }
@media (prefers-color-scheme: dark) { :root { --ink: #e6edf3; --dim: #9aa5b1; --paper: #0f1419;
  --line: #30363d; --bar: #5fc98f; --soft: #2b5d43; --card: #1a2028; } }
body { margin: 0 auto; max-width: 62rem; padding: 1.5rem; font: 1rem/1.5 system-ui, sans-serif;
  color: var(--ink); background: var(--paper); }
h1 { font-size: 1.6rem; overflow-wrap: anywhere; } h2 { font-size: 1.2rem; margin-top: 2rem; }
dl { display: flex; flex-wrap: wrap; gap: 1rem 2.5rem; margin: 0; }
dt { color: var(--dim); font-size: .9rem; } dd { margin: 0; font-size: 1.2rem; }
ul { display: grid; grid-template-columns: repeat(auto-fill, minmax(10rem, 1fr)); gap: 1rem;
  padding: 0; list-style: none; }
li { background: var(--card); border: 1px solid var(--line); border-radius: .5rem; padding: .75rem; }
li img { display: block; width: 100%; aspect-ratio: 1; object-fit: contain; border-radius: .25rem; }
li b { display: block; margin-top: .5rem; } li span { color: var(--dim); font-size: .9rem; }
ol { padding: 0; list-style: none; } ol li { margin-bottom: .75rem; overflow: auto; }
ol li b, ol li span { display: inline; margin-right: .5rem; }
ol li img { width: 10rem; margin-top: .5rem; } code { display: block; } pre { white-space: pre-wrap; }
p { color: var(--dim); }
.chart { position: relative; margin: 0 2rem 2rem 4rem; font-size: .8rem; color: var(--dim); }
.row { position: relative; height: 1.4rem; }
.row b { position: absolute; right: 100%; padding-right: .5rem; font-weight: normal; }
.bar { position: absolute; top: .2rem; bottom: .2rem; min-width: 2px; border-radius: 3px;
  background: var(--bar); }
.time, .level { font-style: normal; }
.time { position: absolute; top: 0; bottom: 0; border-left: 1px solid var(--line); }
.time span { position: absolute; top: 100%; padding-top: .3rem; transform: translateX(-50%); }
.level { position: absolute; left: 0; right: 0; border-bottom: 1px solid var(--line); }
.level span { position: absolute; right: 100%; bottom: -.7rem; padding-right: .5rem; }
svg { position: relative; display: block; width: 100%; height: 14rem; transform: scaleY(-1); }
.most { fill: var(--soft); }
.median { fill: none; stroke: var(--bar); stroke-width: 2; vector-effect: non-scaling-stroke; }
</style>
</head>
<body>
<main>
<h1>{{title}}</h1>
<dl>
{{figures}}</dl>
{{faces}}<h2>Milliseconds per frame</h2>
<div class="chart" role="img" aria-label="Milliseconds per frame. {{summary}}">
{{times}}</div>
<p>The line is the median, the area reaches to the longest.</p>
</main>
</body>
</html>
)html";

}  // namespace tavro::host
