#pragma once

namespace tavro::host {

/// The page at the root: the pictures, and beside them the faces of the latest result.
inline constexpr const char* webPage = R"html(<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>tavro-fd, live</title>
<style>
:root { color-scheme: light dark; }
body { margin: 0 auto; max-width: 80rem; padding: 1rem; font: 1rem/1.5 system-ui, sans-serif; }
h1 { font-size: 1.3rem; margin: 0 0 .5rem; }
img { display: block; width: 100%; max-height: 80vh; object-fit: contain; background: #000; }
table { border-collapse: collapse; margin-top: .5rem; font-variant-numeric: tabular-nums; }
th, td { padding: 0 1rem 0 0; text-align: right; }
</style>
</head>
<body>
<h1>tavro-fd, live</h1>
<img src="/stream" alt="The video with its faces marked">
<p id="state" role="status">Waiting for the first frame</p>
<table><thead><tr><th>face<th>left<th>top<th>right<th>bottom</thead><tbody id="faces"></tbody></table>
<script>
const state = document.getElementById("state");
const faces = document.getElementById("faces");
const events = new EventSource("/events");
events.onmessage = event => {
  const result = JSON.parse(event.data);
  state.textContent = `${result.faces.length} face${result.faces.length === 1 ? "" : "s"} at ` +
    `${result.time.toFixed(1)} s, found in ${result.ms.toFixed(2)} ms`;
  faces.replaceChildren(...result.faces.map(face => {
    const row = document.createElement("tr");
    for (const value of [face.number, face.left, face.top, face.right, face.bottom])
      row.insertCell().textContent = value;
    return row;
  }));
};
events.onerror = () => { events.close(); state.textContent = "The stream has ended"; };
</script>
</body>
</html>
)html";

}  // namespace tavro::host
