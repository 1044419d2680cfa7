
class Extension {
    enable() {
        this._publisher = new FocusPublisher();
        this._publisher.enable();
    }

    disable() {
        this._publisher.disable();
        this._publisher = null;
    }
}

function init() {
    return new Extension();
}
