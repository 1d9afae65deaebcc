#include "blocks.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "dxutils.h"
#include "problem.h"

namespace {

Problem Unreadable(const std::string& name, int error) {
  return {kWrongUsage, "cannot read " + name + ": " + std::strerror(error),
          "check the name and that the file may be read; nothing has been run"};
}

std::string ReadAll(std::FILE* file, const std::string& name) {
  std::string text;
  std::array<char, 65536> piece;
  while (const std::size_t count = std::fread(piece.data(), 1, piece.size(), file)) text.append(piece.data(), count);
  if (std::ferror(file)) throw Unreadable(name, errno);
  return text;
}

std::string ReadFile(const std::string& path) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) throw Unreadable(path, errno);
  return ReadAll(file.get(), path);
}

Block MakeBlock(const std::string& name, const std::string& text) {
  // An engine takes C text and would silently run what stands before the NUL.
  if (const std::size_t nul = text.find('\0'); nul != std::string::npos) {
    throw Problem(kWrongUsage, name + " holds a NUL byte (at offset " + std::to_string(nul) + ")",
                  "give program text; a file in UTF-16 has to be converted to UTF-8 first. Nothing has been run");
  }
  return {name, GetListFromDelims(text, "\n")};
}

Block ReadBlock(const BlockSource& source, int textNumber) {
  switch (source.kind) {
    case BlockSource::Kind::kFile:
      return MakeBlock(source.value, ReadFile(source.value));
    case BlockSource::Kind::kStandardInput:
      return MakeBlock("standard input", ReadAll(stdin, "standard input"));
    case BlockSource::Kind::kText:
      break;
  }
  return MakeBlock("-e " + std::to_string(textNumber), source.value);
}

}  // namespace

std::vector<Block> ReadBlocks(const std::vector<BlockSource>& sources) {
  std::vector<Block> blocks;
  int textNumber = 0;
  for (const BlockSource& source : sources) {
    if (source.kind == BlockSource::Kind::kText) ++textNumber;
    blocks.push_back(ReadBlock(source, textNumber));
  }
  return blocks;
}
