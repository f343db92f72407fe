// The style of the report's page.
#pragma once

namespace agent {

constexpr char kReportStyle[] = R"css(
:root{color-scheme:light dark;--bg:#f6f7f9;--card:#fff;--text:#1b1f24;--muted:#626b77;--line:#e1e5ea;--cpu:#2563eb;
--cpu-f:#2563eb26;--thr:#d97706;--thr-f:#d9770640;--mem:#0f8a6a;--mem-f:#0f8a6a26;--lim:#c42b4a;--oom:#c42b4a;
--kill:#a21caf;--would:#7c6f9b;--drift:#b45309;--config:#2563eb;--end:#626b77;--host:#0f766e;--ok:#0f8a6a;--warn:#b45309;--bad:#c42b4a}
@media(prefers-color-scheme:dark){:root{--bg:#12151a;--card:#1b2027;--text:#e6e9ee;--muted:#98a2b0;--line:#2d343e;
--cpu:#6ea0ff;--cpu-f:#6ea0ff2e;--thr:#f0a03c;--thr-f:#f0a03c45;--mem:#3fc79b;--mem-f:#3fc79b2a;--lim:#ff6b85;
--oom:#ff6b85;--kill:#e07bf0;--would:#b3a6d4;--drift:#f0a03c;--config:#6ea0ff;--end:#98a2b0;--host:#3fc7b8;--ok:#3fc79b;
--warn:#f0a03c;--bad:#ff6b85}}
*{box-sizing:border-box}
body{margin:0;background:var(--bg);color:var(--text);font:15px/1.45 system-ui,-apple-system,"Segoe UI",Roboto,
"DejaVu Sans",sans-serif;-webkit-text-size-adjust:100%}
main{max-width:84rem;margin:0 auto;padding:1.25rem 1rem 3rem}
h1{font-size:1.45rem;margin:0 0 .15rem;overflow-wrap:anywhere}
h2{font-size:1.05rem;margin:2rem 0 .6rem}
h3{font-size:.95rem;margin:0;overflow-wrap:anywhere;font-weight:600}
p{margin:.2rem 0}.muted{color:var(--muted)}.small{font-size:.82rem}
.card{background:var(--card);border:1px solid var(--line);border-radius:.6rem;padding:.8rem .9rem;min-width:0}
.tiles{display:grid;grid-template-columns:repeat(auto-fit,minmax(8.2rem,1fr));gap:.6rem;margin:1rem 0}
.tiles b{display:block;font-size:1.35rem;font-variant-numeric:tabular-nums}
.grid{display:grid;grid-template-columns:repeat(auto-fill,minmax(min(100%,25rem),1fr));gap:.8rem}
.head{display:flex;justify-content:space-between;gap:.6rem;font-size:.82rem;margin-top:.55rem;flex-wrap:wrap}
.head span:first-child{font-weight:600}
.head span:last-child{color:var(--muted);font-variant-numeric:tabular-nums}
.row{display:grid;grid-template-columns:4.2rem 1fr;gap:.4rem}
.y{display:flex;flex-direction:column;justify-content:space-between;text-align:right;font-size:.7rem;line-height:1;
color:var(--muted);font-variant-numeric:tabular-nums;white-space:nowrap}
.plot{position:relative;border-left:1px solid var(--line);border-bottom:1px solid var(--line);min-width:0}
.plot svg{overflow:visible;display:block;width:100%;height:4.4rem}.plot.low svg{height:2.6rem}
.x{position:relative;height:1.1rem;font-size:.7rem;color:var(--muted);font-variant-numeric:tabular-nums}
.x span{position:absolute;top:.15rem;transform:translateX(-50%);white-space:nowrap}
path{vector-effect:non-scaling-stroke;fill:none;stroke-width:1.4}
.cpu{stroke:var(--cpu)}.cpu-f{fill:var(--cpu-f);stroke:none}.thr{stroke:var(--thr)}.thr-f{fill:var(--thr-f);stroke:none}
.mem{stroke:var(--mem)}.mem-f{fill:var(--mem-f);stroke:none}.lim{stroke:var(--lim);stroke-dasharray:5 3}
.g{stroke:var(--line);stroke-width:1}.mk{stroke-width:1;stroke-opacity:.75}
.M{--c:var(--oom)}.K{--c:var(--kill)}.W{--c:var(--would)}.D{--c:var(--drift)}.C{--c:var(--config)}.E{--c:var(--end)}.H{--c:var(--host)}
.mk{stroke:var(--c)}
.strip{position:relative;height:1.5rem;border-left:1px solid var(--line);border-bottom:1px solid var(--line)}
.strip i{position:absolute;top:.15rem;transform:translateX(-50%)}
i.k{display:inline-block;min-width:1.2rem;height:1.2rem;border-radius:.6rem;padding:0 .25rem;font-style:normal;font-size:.7rem;font-weight:600;line-height:1.2rem;text-align:center;color:var(--card);background:var(--c)}
.key{display:flex;flex-wrap:wrap;gap:.3rem 1rem;margin:.5rem 0 .6rem;font-size:.82rem;color:var(--muted)}
.key svg{width:1.4rem;height:.7rem;vertical-align:middle}
ul.list{list-style:none;margin:0;padding:0}
ul.list li{display:grid;grid-template-columns:auto auto 1fr;gap:.1rem .6rem;padding:.4rem 0;align-items:baseline;
border-top:1px solid var(--line)}
ul.list li:first-child{border-top:0}ul.list span{overflow-wrap:anywhere;min-width:0}
time{font-variant-numeric:tabular-nums;color:var(--muted);white-space:nowrap}
.ok{color:var(--ok)}.warning{color:var(--warn)}.problem{color:var(--bad)}.tag{font-weight:600;white-space:nowrap}
ul.find li{grid-template-columns:5.2rem 1fr}ul.find .do{grid-column:2;color:var(--muted);font-size:.85rem}
details summary{cursor:pointer;color:var(--muted)}
@media(max-width:34rem){.strip i.k{min-width:1rem;height:1rem;line-height:1rem;font-size:.6rem;padding:0 .15rem}
main{padding:1rem .7rem 2rem}.card{padding:.7rem}.row{grid-template-columns:3.4rem 1fr}
ul.list li{grid-template-columns:auto 1fr}ul.list i.k{justify-self:start}ul.list li span{grid-column:1/-1}ul.find li{grid-template-columns:1fr}
ul.find .do{grid-column:1}}
@media print{body{background:#fff}.card{break-inside:avoid}}
)css";

}  // namespace agent
