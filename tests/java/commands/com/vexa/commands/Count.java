package com.vexa.commands;

/** How much has arrived. */
public final class Count {
    private Count() {
    }

    public static void main(String... lines) {
        long characters = 0;
        for (String line : lines) {
            characters += line.length();
        }
        System.out.print(lines.length + " " + characters);
    }
}
