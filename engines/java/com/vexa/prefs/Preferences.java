package com.vexa.prefs;

import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.Reader;
import java.nio.charset.StandardCharsets;
import java.util.Properties;

/** The preferences of the host's engines: bin/vexaprefs.properties, in UTF-8, of the home named by vexa.home. */
public final class Preferences {
    private Preferences() {
    }

    /**
     * One preference of an engine, without blanks around it; empty when there is no such file or preference. The file
     * is read at every call, so that a change is seen at once.
     */
    public static String get(String engine, String preference) {
        String file = System.getProperty("vexa.home") + "/bin/vexaprefs.properties";
        try (Reader reader = new InputStreamReader(new FileInputStream(file), StandardCharsets.UTF_8)) {
            Properties preferences = new Properties();
            preferences.load(reader);
            return preferences.getProperty(engine + "." + preference, "").strip();
        } catch (IOException | IllegalArgumentException unreadable) { // the latter: a broken Unicode escape
            return "";
        }
    }
}
