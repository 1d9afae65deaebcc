package com.zel.statistics.plugin;

import java.io.IOException;
import java.lang.invoke.MethodHandle;
import java.lang.invoke.MethodHandles;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.net.InetSocketAddress;
import java.nio.ByteBuffer;
import java.nio.channels.Channels;
import java.nio.channels.SocketChannel;

/**
 * The program of the Java extension process, {@code Extension LOCAL|REMOTE PORT COMMAND}: runs one command for the host
 * that started it. It connects to the port on 127.0.0.1, receives one message block, and calls the command with the
 * block's strings: the lines to run.
 *
 * <p>A command is a class on the class path, named as the command, with its package if it has one. It has a
 * {@code public static void main(String[])}, which is called as the {@code java} program would call it: on the main
 * thread, the process's standard streams being its own, and the process goes on until the last thread that is not a
 * daemon has ended. The class is looked up before the connection is made, so that a host learns at the start that its
 * command cannot run.
 *
 * <p>The host keeps the connection open while the process lives. Its end means that the host is gone, and the process
 * ends within a second, in the middle of the command and without its shutdown hooks.
 *
 * <p>Exit status: 0 the command returned; 1 it threw, with the stack trace on standard error; n it called
 * {@code System.exit(n)}. Before the command, with a line on standard error: 2 wrong usage; 3 the host cannot be
 * connected to; 4 the message block is unreadable; 5 there is no such command. 6 the host went away during the command.
 */
public final class Extension {
    private static final int WRONG_USAGE = 2;
    private static final int NOT_CONNECTED = 3;
    private static final int UNREADABLE_BLOCK = 4;
    private static final int NO_SUCH_COMMAND = 5;
    private static final int HOST_GONE = 6;

    private static final int WATCH_INTERVAL_MS = 200;

    /** Why the process ends before its command runs. */
    private static final class Refusal extends Exception {
        private static final long serialVersionUID = 1;

        final int status;

        Refusal(int status, String message) {
            super(message);
            this.status = status;
        }
    }

    private Extension() {
    }

    public static void main(String[] arguments) throws Throwable {
        MethodHandle command = null;
        String[] lines = null;
        try {
            int port = portOf(arguments);
            command = find(arguments[2]);
            SocketChannel host = connect(port);
            lines = receiveLines(host);
            endWith(host);
        } catch (Refusal refusal) {
            System.err.println("Java extension: " + refusal.getMessage());
            System.exit(refusal.status);
        }
        command.invokeExact(lines); // what it throws is the launcher's to print, as for any program
    }

    private static int portOf(String[] arguments) throws Refusal {
        if (arguments.length == 3 && (arguments[0].equals("LOCAL") || arguments[0].equals("REMOTE"))) {
            try {
                int port = Integer.parseInt(arguments[1]);
                if (port > 0 && port <= 0xFFFF) {
                    return port;
                }
            } catch (NumberFormatException notANumber) {
                // said below
            }
        }
        throw new Refusal(WRONG_USAGE, "usage: Extension LOCAL|REMOTE PORT COMMAND");
    }

    // A method handle throws what the command throws, and shows no frames of its own in a stack trace.
    private static MethodHandle find(String command) throws Refusal {
        try {
            Method main = Class.forName(command, false, ClassLoader.getSystemClassLoader())
                    .getMethod("main", String[].class);
            if (Modifier.isStatic(main.getModifiers()) && main.getReturnType() == void.class
                    && main.trySetAccessible()) {
                return MethodHandles.lookup().unreflect(main);
            }
        } catch (ClassNotFoundException notThere) {
            throw new Refusal(NO_SUCH_COMMAND, "there is no command \"" + command
                    + "\": no class of that name is on the class path " + System.getProperty("java.class.path"));
        } catch (LinkageError unusable) {
            throw new Refusal(NO_SUCH_COMMAND, "the class of the command " + command
                    + " cannot be loaded: " + unusable);
        } catch (ReflectiveOperationException noMain) {
            // said below
        }
        throw new Refusal(NO_SUCH_COMMAND, "the class of the command " + command
                + " has no public static void main(String[])");
    }

    private static SocketChannel connect(int port) throws Refusal {
        try {
            return SocketChannel.open(new InetSocketAddress("127.0.0.1", port));
        } catch (IOException refused) {
            throw new Refusal(NOT_CONNECTED, "cannot connect to the host on port " + port + ": "
                    + refused.getMessage());
        }
    }

    private static String[] receiveLines(SocketChannel host) throws Refusal {
        try {
            String[] lines = MessageBlock.receiveStrings(Channels.newInputStream(host));
            host.configureBlocking(false);
            return lines;
        } catch (IOException unreadable) {
            throw new Refusal(UNREADABLE_BLOCK, "the host's message block is unreadable: " + unreadable.getMessage());
        } catch (OutOfMemoryError tooLong) {
            throw new Refusal(UNREADABLE_BLOCK, "the host's message block is too long for the memory of this process");
        }
    }

    // It looks again and again: the machine would delay every end of the process for a thread that waits in a read.
    private static void endWith(SocketChannel host) {
        Thread watch = new Thread(() -> {
            while (isThere(host)) {
                try {
                    Thread.sleep(WATCH_INTERVAL_MS);
                } catch (InterruptedException byCommand) {
                    // looks once more than it had to
                }
            }
            Runtime.getRuntime().halt(HOST_GONE);
        }, "watch of the host");
        watch.setDaemon(true);
        watch.start();
    }

    private static boolean isThere(SocketChannel host) {
        try {
            return host.read(ByteBuffer.allocate(1024)) >= 0;
        } catch (IOException reset) {
            return false;
        }
    }
}
