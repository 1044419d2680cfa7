// Runs inside KWin: tells the agent which window is active, and its caption as it changes.
// The agent puts its own bus name in place of the placeholder when it loads this.
const agent = "@AGENT_BUS_NAME@";
const path = "/tech/stonefold/corvimetry/KWinActiveWindow";
const iface = "tech.stonefold.corvimetry.KWinActiveWindow";

let watched = null;

// KWin tells windows with the same caption apart by a " <2>" suffix, U+200E after it on X11.
// The title the application set is the caption without it.
function titleOf(w) {
    const caption = String(w.caption || "");
    const numbered = /^([\s\S]*) <\d+>(\u200e?)$/.exec(caption);
    if (!numbered) return caption;
    const base = numbered[1];
    if (numbered[2]) return base;
    const windows = workspace.windowList ? workspace.windowList() : workspace.clientList();
    for (const other of windows) {
        const c = String(other.caption || "");
        if (other !== w && (c === base || c.startsWith(base + " <"))) return base;
    }
    return caption;
}

function report() {
    const w = watched;
    if (!w) {
        callDBus(agent, path, iface, "None");
        return;
    }
    // KWin 5 holds the class as bytes; they travel as the engine gives them, text or bytes,
    // and the agent decodes either.
    callDBus(agent, path, iface, "Active", String(w.desktopFileName || ""), w.resourceClass || "",
             titleOf(w), Number(w.pid || 0));
}

function activated(w) {
    if (watched) {
        // A closed window's wrapper may already be gone.
        try {
            watched.captionChanged.disconnect(report);
        } catch (e) {
        }
    }
    watched = w || null;
    if (watched) watched.captionChanged.connect(report);
    report();
}

// KWin 6 calls clients windows.
if (workspace.windowActivated) {
    workspace.windowActivated.connect(activated);
    activated(workspace.activeWindow);
} else {
    workspace.clientActivated.connect(activated);
    activated(workspace.activeClient);
}
