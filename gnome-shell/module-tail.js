
export default class OrvaneExtension extends Extension {
    enable() {
        this._service = new OrvaneShellService({
            path: this.path,
            settings: this.getSettings(),
        });
        this._service.enable();
    }

    disable() {
        if (this._service)
            this._service.disable();
        this._service = null;
    }
}
