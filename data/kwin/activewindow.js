// Runs inside KWin: tells the agent which window is active, and its caption as it changes.
// The agent puts its own bus name in place of the placeholder when it loads this.
const agent = "@AGENT_BUS_NAME@";
const path = "/tech/stonefold/corvimetry/KWinActiveWindow";
const iface = "tech.stonefold.corvimetry.KWinActiveWindow";

let watched = null;

function report() {
    const w = watched;
    if (!w) {
        callDBus(agent, path, iface, "None");
        return;
    }
    // KWin 5 holds the class as bytes; they travel as the engine gives them, text or bytes,
    // and the agent decodes either.
    callDBus(agent, path, iface, "Active", String(w.desktopFileName || ""), w.resourceClass || "",
             String(w.caption || ""), Number(w.pid || 0));
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
