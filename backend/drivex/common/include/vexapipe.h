#pragma once

#include <string>

#include "vexadx_export.h"

// One end of a named pipe, a FIFO in the file system, for one direction. One thread at a time.
//
// An open or a read waits until the other end does its part, and only that end. Descriptors are close-on-exec, calls
// that a signal interrupts go on, and a write without a reader is a code and never a signal to the process. All
// operations answer 0 or a code; vexadx::kPipeFailed (99104) means that the system refused, with errno as it left it.
class VEXADX_API VexaPipe {
 public:
  VexaPipe();
  explicit VexaPipe(std::string name);

  // Closes the pipe and removes the file of its name, whoever made it.
  ~VexaPipe();
  VexaPipe(const VexaPipe&) = delete;
  VexaPipe& operator=(const VexaPipe&) = delete;

  // The path of the FIFO. A new name leaves an open descriptor as it is. The text belongs to the pipe and is valid
  // until the name changes; its length is in bytes.
  void SetPipeName(std::string name);
  std::string GetPipeName();
  const char* GetPipeName(int& length);

  // Makes the FIFO, for everybody as far as the process's file-creation mask allows. A file that is there already is
  // left as it is: 0. vexadx::kPipeUnnamed (99106) without a name.
  int CreatePipe();

  // Open one end: wait for the other end, or do not. For writing, a descriptor that is open is replaced, also by a
  // failure; without waiting it fails while nobody reads. For reading, an open pipe stays open.
  int OpenPipeToWrite();
  int OpenPipeToUnBlockWrite();
  int OpenPipeToRead();
  int OpenPipeToUnBlockRead();

  // Open for writing and for reading, waiting for the other end, without a trace. The latter also waits up to 11
  // seconds for the file to be there.
  int VEXACreateFile();
  int VEXACreateFileR();

  // Writes all the bytes, in pieces. What was written before a failure stays written. The pointer is not used.
  int WriteData(const void* buffer, int length, unsigned long*);

  // Reads once, at most `length` bytes, waiting while the pipe is empty. `count` is set on success; 0: every writer has
  // closed.
  int ReadData(int length, void* buffer, unsigned long& count);

  // Asks the system to flush; always 0.
  int FlushPipe();

  // 0, or the number of the system's error. The pipe is closed either way and can be opened again.
  int ClosePipe();

  bool HasPipe();               // it is open
  bool IsWritePipeConnected();  // it was opened for writing
  bool IsPipeCreated();         // this object made the FIFO; forgotten when it is closed

  // Do nothing on this platform and answer 0.
  int ConnectPipe();
  int DisconnectPipe();
  int ChangeReadMode();
  int ChangeToUnBlockMode();

 private:
  friend class MonitorThread;  // waits for the descriptor and for its own stop at once
  friend class AsyCsPipe1;
  friend class XPipes;

  // Closes the pipe and removes a FIFO of ours, so that who has it open still does not meet a new other end.
  VEXADX_HIDDEN void dropEnd();
  VEXADX_HIDDEN int discardLate();

  VEXADX_HIDDEN int openWith(int mode);
  VEXADX_HIDDEN int openToWrite(int mode, const char* operation);
  VEXADX_HIDDEN int openToRead(int mode);

  int m_pipe;  // the descriptor; -1: not open
  std::string m_pipeName;
  bool m_writeConnected;
  bool m_pipeCreated;
};
