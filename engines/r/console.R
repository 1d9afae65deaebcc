# What the console would do around the blocks. These functions live in an environment of the plug-in's own; they are
# called with the text of a whole block.

# R keeps the calls that led to an error for one who looks at them, a person at the console or a handler.
options(error = expression(NULL))

# Where a parser's message begins with the place. A place in column 0 is the end of the text.
place <- "^<text>:([0-9]+):([0-9]+): "

attempt <- function(text, n) tryCatch(parse(text = text, n = n, keep.source = FALSE), error = identity)

line_in <- function(message) as.integer(sub(paste0(place, "(.|\n)*"), "\\1", message))

# How many expressions end before the line of the syntax error; none when it is in the middle of one.
count_before_line <- function(text) {
  message <- conditionMessage(attempt(text, -1L))
  if (!grepl(place, message)) return(0L)
  lines <- strsplit(text, "\n", fixed = TRUE)[[1L]]
  lines <- lines[seq_len(min(length(lines), line_in(message) - 1L))]  # the end of the text is behind the last one
  before <- attempt(paste(lines, collapse = "\n"), -1L)
  if (is.expression(before)) length(before) else 0L
}

# How many expressions come before the syntax error.
count_whole <- function(text) {
  whole <- tryCatch(count_before_line(text), warning = function(bytes_that_are_no_text) 0L)
  step <- 1L
  while (is.expression(attempt(text, whole + step))) {
    whole <- whole + step
    step <- 2L * step
  }
  broken <- whole + step
  while (broken - whole > 1L) {
    middle <- (whole + broken) %/% 2L
    if (is.expression(attempt(text, middle))) whole <- middle else broken <- middle
  }
  whole
}

# With places in characters: a tab would be up to 8 of them, and one of unmarked text as many as it has bytes.
sources_of <- function(text, n) {
  if (l10n_info()[["UTF-8"]]) Encoding(text) <- "UTF-8"
  text <- gsub("\t", " ", text, fixed = TRUE)
  kept <- options(keep.parse.data = FALSE)
  on.exit(options(kept))
  attr(parse(text = text, n = n, keep.source = TRUE), "srcref")
}

# What is behind an expression, from the line on that the console would have read for the next one.
text_behind <- function(text, n) {
  lines <- strsplit(text, "\n", fixed = TRUE)[[1L]]
  first <- 1L
  if (n > 0L) {
    end <- sources_of(text, n)[[n]]
    first <- end[3L]
    lines[first] <- sub("^[ \t]*;?", "", substring(lines[first], end[6L] + 1L))
  }
  while (first < length(lines) && grepl("^[ \t\r\f]*(#.*)?$", lines[first])) first <- first + 1L
  list(text = paste(lines[first:length(lines)], collapse = "\n"), first = first, last = length(lines), n = 1L)
}

# In the console's words, which name no place.
rephrased <- function(message) {
  lines <- strsplit(message, "\n", fixed = TRUE)[[1L]]
  if (!grepl(place, lines[1L])) return(message)
  what <- sub(place, "", lines[1L])
  column <- sub(paste0(place, ".*"), "\\2", lines[1L])
  context <- sub("^[0-9]+: ", "", lines[-c(1L, length(lines))])
  if (grepl("INCOMPLETE_STRING", what, fixed = TRUE)) return("unexpected end of input")
  if (column == "0" || length(context) == 0L) return(what)
  if (length(context) == 1L) return(sprintf("%s in \"%s\"", what, context))
  sprintf("%s in:\n\"%s\"", what, paste(context, collapse = "\n"))
}

# Of a block with a syntax error: the expressions before it, which the console has run when it meets it, and the error
# with its line.
up_to_error <- function(text) {
  n <- count_whole(text)
  before <- if (n > 0L) parse(text = text, n = n, keep.source = isTRUE(getOption("keep.source"))) else expression()
  # Bytes that are no text in this locale cannot be taken apart.
  whole <- function(trouble) list(text = text, first = 1L, last = 1L, n = n + 1L)
  rest <- tryCatch(text_behind(text, n), error = whole, warning = whole)
  message <- conditionMessage(attempt(rest$text, rest$n))
  line <- if (grepl(place, message)) line_in(message) else 1L
  list(before, rephrased(message), min(rest$first + line - 1L, rest$last))
}

# What the console has said about the error that ended the block, the calls that led to it, and the line of the
# expression that was the block's n-th.
described <- function(text, n) {
  calls <- vapply(.traceback(), paste, "", collapse = "\n")
  traceback <- paste0(rev(seq_along(calls)), ": ", calls, recycle0 = TRUE, collapse = "\n")
  line <- tryCatch(sources_of(text, n)[[n]][1L], error = function(failure) 0L)
  list(enc2utf8(sub("\n$", "", geterrmessage())), enc2utf8(traceback), line)
}
