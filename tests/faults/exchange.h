#pragma once

#include <string>

#include "clexdsmb.h"
#include "dxglobals.h"
#include "framing.h"
#include "xpipemanager.h"

// The text that comes back for a block, within a run of the X; or what went wrong.
inline std::string TextInReplyTo(const std::string& block, const std::string& xName) {
  XPipes* const pipes = GetXPipeManager()->getPipeSuit(xName)->getXPipes();
  CleXDSmb request;
  request.SetString(block);
  if (const int code = SendData(pipes->GetSyntaxPipe(), request, false); code != 0) return std::to_string(code);
  CleXDSmb reply;
  const int code = ReceiveData(pipes->GetSyntaxResultPipe(), reply, true);
  return code == 0 ? reply.GetSingleString() : std::to_string(code);
}

// One in which each part differs from its neighbours.
inline std::string TextOf(std::size_t bytes) {
  std::string text(bytes, ' ');
  for (std::size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>('a' + i * i % 23);
  return text;
}
