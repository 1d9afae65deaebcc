package com.vexa.rcfg;

import com.vexa.prefs.Preferences;

/** What the host asks about the R engine; every answer may be empty. */
public final class RCfg {
    private static final String ENGINE = "R";

    private RCfg() {
    }

    /** The plug-in library's name. */
    public static String getRInvokeLibName() {
        return Preferences.get(ENGINE, "libName");
    }

    /** The home directory of R. */
    public static String getRPath() {
        return Preferences.get(ENGINE, "home");
    }

    /** The directory in which packages are installed. */
    public static String getRPackageInstallPath() {
        return Preferences.get(ENGINE, "packagePath");
    }

    /** The directory of the plug-in library. */
    public static String getRInvokeLibPath() {
        return Preferences.get(ENGINE, "libPath");
    }
}
