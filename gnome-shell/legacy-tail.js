
class OrvaneExtension {
    constructor() {
        this._service = null;
    }

    enable() {
        const me = ExtensionUtils.getCurrentExtension();
        this._service = new OrvaneShellService({
            path: me.path,
            settings: ExtensionUtils.getSettings(),
        });
        this._service.enable();
    }

    disable() {
        if (this._service)
            this._service.disable();
        this._service = null;
    }
}

/* exported init */
function init() {
    return new OrvaneExtension();
}
