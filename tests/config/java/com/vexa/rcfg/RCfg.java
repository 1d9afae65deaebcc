package com.vexa.rcfg;

/** Preferences that go wrong: one throws, one answers null, one works, and one is not there. */
public final class RCfg {
    private RCfg() {
    }

    public static String getRInvokeLibName() {
        throw new IllegalStateException("no library name");
    }

    public static String getRPath() {
        return null;
    }

    public static String getRInvokeLibPath() {
        return "/works";
    }
}
