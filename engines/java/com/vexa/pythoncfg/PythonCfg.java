package com.vexa.pythoncfg;

import com.vexa.prefs.Preferences;

/** What the host asks about a Python engine, by the engine's name; every answer may be empty. */
public final class PythonCfg {
    private PythonCfg() {
    }

    /** The plug-in library's name. */
    public static String getPythonInvokeLibName(String engine) {
        return Preferences.get(engine, "libName");
    }

    /** The home directory of Python. */
    public static String getPythonPath(String engine) {
        return Preferences.get(engine, "home");
    }
}
