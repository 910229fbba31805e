#include "pmctl/report_page.h"

namespace ProcMgr::Pmctl {

const std::string_view REPORT_STYLE = R"css(
:root{color-scheme:light dark;--page:#f6f8fa;--card:#ffffff;--line:#d1d9e0;--text:#1f2328;--quiet:#59636e;
--good:#1a7f37;--good-back:#dafbe1;--bad:#cf222e;--bad-back:#ffebe9;--busy:#9a6700;--busy-back:#fff8c5;--none-back:#eaeef2}
@media (prefers-color-scheme:dark){:root{--page:#010409;--card:#0d1117;--line:#30363d;--text:#f0f6fc;--quiet:#9198a1;
--good:#3fb950;--good-back:#0f3d1e;--bad:#ff7b72;--bad-back:#4b1113;--busy:#d29922;--busy-back:#3b2e08;--none-back:#2a313c}}
*{box-sizing:border-box}
body{margin:0;background:var(--page);color:var(--text);font:14px/1.5 system-ui,-apple-system,"Segoe UI",Roboto,"Helvetica Neue",Arial,sans-serif}
header,main{max-width:1280px;margin:0 auto;padding:16px 24px}
header{padding-top:28px}
h1{margin:0;font-size:24px;line-height:1.25}
h1 small{font-weight:400;color:var(--quiet);font-size:16px}
h2{font-size:16px;margin:0;display:inline}
p.meta{margin:4px 0 0;color:var(--quiet);overflow-wrap:anywhere}
.tiles{display:grid;grid-template-columns:repeat(auto-fill,minmax(130px,1fr));gap:12px;margin-bottom:16px}
.tile,section,details{background:var(--card);border:1px solid var(--line);border-radius:8px}
.tile{padding:10px 14px}
.tile b{display:block;font-size:22px;line-height:1.3;font-variant-numeric:tabular-nums;white-space:nowrap}
.tile span{color:var(--quiet)}
.tile.good b{color:var(--good)}.tile.bad b{color:var(--bad)}.tile.busy b{color:var(--busy)}
section,details{margin-bottom:16px;overflow:hidden}
p.alarm{margin:0 0 16px;padding:10px 14px;border-radius:8px;background:var(--bad-back);color:var(--bad);font-weight:600;overflow-wrap:anywhere}
section>h2{display:block;padding:12px 16px}
summary{padding:12px 16px;cursor:pointer}
summary::marker{color:var(--quiet)}
.wide{overflow-x:auto;border-top:1px solid var(--line)}
.wide svg{display:block}
table{border-collapse:collapse;width:100%;font-variant-numeric:tabular-nums}
th,td{text-align:left;padding:6px 12px;border-bottom:1px solid var(--line);vertical-align:top;white-space:nowrap}
tr:last-child td{border-bottom:0}
th{color:var(--quiet);font-weight:600;font-size:12px;background:var(--page)}
td.number,th.number{text-align:right}
td.text{white-space:normal;overflow-wrap:anywhere;min-width:14em}
td.name{font-weight:600;white-space:normal;overflow-wrap:anywhere;min-width:16em}
td.name small{display:block;font-weight:400;color:var(--quiet)}
td .next{color:var(--quiet)}
.badge{display:inline-block;padding:0 8px;border-radius:10px;font-size:12px;font-weight:600;background:var(--none-back);color:var(--quiet)}
.badge.good{background:var(--good-back);color:var(--good)}
.badge.bad{background:var(--bad-back);color:var(--bad)}
.badge.busy{background:var(--busy-back);color:var(--busy)}
p.empty{margin:0;padding:4px 16px 14px;color:var(--quiet)}
@media (max-width:720px){header,main{padding-left:12px;padding-right:12px}.minor{display:none}th,td{padding:6px 8px}td.text{min-width:10em}td.name{min-width:9em}.tile b{font-size:18px}
.cards thead{display:none}.cards tr{display:flex;flex-wrap:wrap;align-items:baseline;border-bottom:1px solid var(--line);padding:4px 0}
.cards td{border:0;padding:2px 8px}.cards td.name{flex:1}.cards td.text{flex-basis:100%}.cards td.text:empty,.cards td.minor{display:none}}
@media print{:root{--page:#ffffff}body{font-size:11px}header,main{max-width:none;padding:0 0 8px}.wide{overflow:visible}
.wide svg{max-width:100%;height:auto}tr,.tile{break-inside:avoid}thead{display:table-header-group}
details::details-content{content-visibility:visible;block-size:auto}.badge,.tile{print-color-adjust:exact}}
)css";

}  // namespace ProcMgr::Pmctl
