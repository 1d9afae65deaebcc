import java.io.FileDescriptor;
import java.io.FileOutputStream;
import java.io.PrintStream;
import java.nio.charset.StandardCharsets;

/** Shows its lines as they arrived, whatever encoding the environment has. */
class STATS_HELLO {
    public static void main(String[] lines) {
        PrintStream out = new PrintStream(new FileOutputStream(FileDescriptor.out), true, StandardCharsets.UTF_8);
        for (String line : lines) {
            out.print("<" + line + ">");
        }
    }
}

class STATS_THROW {
    public static void main(String[] lines) {
        throw new IllegalStateException("on purpose", new RuntimeException("the cause"));
    }
}

class STATS_BROKEN {
    static final int NUMBER = Integer.parseInt("no number");

    public static void main(String[] lines) {
    }
}

class STATS_EXIT {
    public static void main(String[] lines) {
        System.exit(Integer.parseInt(lines[0]));
    }
}

/** Its work goes on after the command has returned. */
class STATS_WORKER {
    public static void main(String[] lines) {
        Thread command = Thread.currentThread();
        new Thread(() -> {
            try {
                command.join();
            } catch (InterruptedException interrupted) {
                throw new IllegalStateException(interrupted);
            }
            System.out.print("after");
        }).start();
    }
}

/** Never ends by itself, nor lets the process be shut down in order. */
class STATS_WAIT {
    public static void main(String[] lines) {
        Runtime.getRuntime().addShutdownHook(new Thread(STATS_WAIT::waitForever));
        System.out.println("waiting");
        waitForever();
    }

    static void waitForever() {
        for (;;) {
            try {
                Thread.sleep(Long.MAX_VALUE);
            } catch (InterruptedException again) {
                // that is no reason to end
            }
        }
    }
}

/** Says in which process it runs, and then never ends by itself, unless it has to return at once. */
class STATS_PROCESS {
    public static void main(String[] lines) {
        if (lines.length > 0 && lines[0].equals("return")) {
            System.out.print("returned");
            return;
        }
        System.out.println("process " + ProcessHandle.current().pid());
        STATS_WAIT.waitForever();
    }
}

class STATS_NOT_STATIC {
    public void main(String[] lines) {
    }
}

class STATS_NOT_PUBLIC {
    static void main(String[] lines) {
    }
}

class STATS_OTHER_RESULT {
    public static int main(String[] lines) {
        return 0;
    }
}
