// SPDX-FileCopyrightText: The kddc authors
// SPDX-License-Identifier: Apache-2.0
//
// The queue of encoded journal records between the two threads of the agent.
//
//   driver thread                                          database thread
//   AddEntry ──► write block ──full──► queue ──► read block ──► ReadEntry
//                    ▲                   │ no block is free
//                    └── free blocks     └──► swap.7 ──► load block
//
// Records come out in the order they went in, whether they waited in memory or in a swap file. A
// consumer that keeps up reads the very block the producer writes. Memory is bounded: the blocks
// are made by the constructor, go round, and are freed by the destructor.
//
// SWAP FILE "<folder>/swap.<number>": what was written into one block, nothing before it and
// nothing behind it; the layout is that of in_memory_buffer.h. Only the host that wrote it reads
// it. What does not fit a block, or a record in it, is logged, counted (DamagedBlocks) and skipped.
//
// Besides that mode there are two in which every full block goes to a swap file and one thread at a
// time uses the object: with two blocks (UDC_RAW_MODE2), and with one that serves both sides in
// turn (UDC_RAW_MODE3), switched by SetContext...: a writing phase, the hand-over, a reading phase.
//
// Settings, section "DataClassification": "dRawBufferDir", the buffer folder, must be there;
// "nRawBufferMaxVMSize", the number of blocks, counts if it is more than 2. The folder is 0700, its
// files 0600; a symbolic link in its place or inside it is not followed.
//
// Threads: AddEntry and SwapOrFlushBuffer are for the producer, ReadEntry and SwapOrLoadBuffer for
// the consumer; what both touch is guarded by Monitor_m. Whoever holds Monitor_m and a block's
// monitor took Monitor_m first. Each side may look at its own block pointer without the lock, as
// nobody else changes it. The modes 2 and 3 lock nothing.
//
// Failures: UDCException, type 0 a system call (with errno), 1 misuse or unexpected contents, 5 a
// wrapped KdException; logged under "DCRawBuffer :: <method>". A call that throws has queued
// nothing and lost nothing: it may be made again.
#pragma once

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "buffer/in_memory_buffer.h"
#include "platform/export.h"
#include "platform/kd_monitor.h"

enum UDCRawBufferMode {
  UDC_RAW_MODE1 = 0,  // shared blocks and one to load into; swap files only on overflow
  UDC_RAW_MODE2 = 1,  // a block to write and one to read; folder "<buffer folder>/<id>_mode2"
  UDC_RAW_MODE3 = 2,  // one block for both; folder "<buffer folder>/<id>"
};

// A filled block that waits for the consumer.
struct Buf_File_s {
  InMemoryBuffer* buffer;         // null: its contents are in the swap file
  unsigned long long fileNumber;  // the write counter when it was queued
};

class KDDC_API DCRawBuffer {
 public:
  // With `create` the folder is emptied, removed and made anew; without, it must be there.
  // `keepStrangers`: files in it that are not ours are left, and no failure.
  DCRawBuffer(unsigned long long id, UDCRawBufferMode mode, bool create,
              bool keepStrangers = false);
  // Frees the blocks. Also removes the folder: always in mode 2, in mode 3 after SetContextDcIfind.
  virtual ~DCRawBuffer();
  DCRawBuffer(const DCRawBuffer&) = delete;
  DCRawBuffer& operator=(const DCRawBuffer&) = delete;

  // A step of the constructor: settings, and the folder.
  void ReadRegistryAndSetupFolder(bool create, bool keepStrangers = false);

  // Queues a copy of a record of 0 to 32767 bytes; 0, or an exception and the queue as before.
  int AddEntry(unsigned char* data, int len);
  // Takes the next record: the bytes lie in a block and are valid until the consumer's next call.
  // False when none is there now, and once whenever the next block is taken up: call again.
  virtual bool ReadEntry(unsigned char** data, int* len);

  // Gives the producer an empty block. When a swap file was written, its number and the result of
  // the block's flush are stored, and else nothing.
  void SwapOrFlushBuffer(unsigned long long* fileCounter, int* offset);
  // Moves the consumer on to the next block. In mode 1 always false, after a wait of at most a
  // minute when there is none; in the others whether a swap file was loaded.
  bool SwapOrLoadBuffer();

  // Mode 3: the last swap file to load, and how many bytes of it.
  void ReadUntil(unsigned long long fileCounter, int offset);
  // Deletes a folder with its sub-folders, if they hold nothing but swap and indicator files; other
  // files stay, are logged, and make it throw type 1 "Unexpected file encountered".
  void RemoveSwapDir(const char* dir);

  // Mode 3: the next phase.
  void SetContextDcIfind();        // the consumer reads
  void SetContextDbThreadWrite();  // the producer writes
  void SetContextDbThreadRead();   // what the producer wrote last goes to a swap file
  void SetBlocking() {}
  void SetNonBlocking() {}

  // How often a block or swap file turned out to be cut or damaged; each time records were lost and
  // an error was logged. From any thread.
  unsigned long long DamagedBlocks() const;

 protected:
  // Removes the folder if it is there, and makes it.
  void recreateFolder(const char* tag, bool keepStrangers);
  // Fills the load block from a swap file and deletes the file.
  void loadAndRemove(const char* tag, unsigned long long number) REQUIRES(Monitor_m);

  unsigned long long Id_m;
  int InMemoryBufferSize_m;
  std::string LastLoadedSwapFile_m;
  bool DcIfindContext_m = false;
  KdMonitor Monitor_m;
  std::list<Buf_File_s> SwapQueue_m GUARDED_BY(Monitor_m);
  std::list<InMemoryBuffer*> FreeBuffers_m GUARDED_BY(Monitor_m);
  std::list<InMemoryBuffer*> AllBuffers_m;  // fixed by the constructor, as are the next four
  UDCRawBufferMode Mode_m;
  int NumBuffers_m;
  std::string SwapDir_m;
  InMemoryBuffer* LoadBuffer_m = nullptr;
  InMemoryBuffer* WriteBuffer_m GUARDED_BY(Monitor_m) = nullptr;
  InMemoryBuffer* ReadBuffer_m GUARDED_BY(Monitor_m) = nullptr;
  int ReadUntilOffset_m = 0;
  unsigned long long ReadFileCounter_m = 0;
  unsigned long long WriteFileCounter_m GUARDED_BY(Monitor_m) = 0;
  int SwapFilePermissions_m = 0600;
  std::atomic<bool> Aborted_m = false;
  std::atomic<unsigned long long> damagedFiles_ = 0;
  // A swap file that was loaded could not be deleted: a restart would find it and load it again.
  bool fileLeftBehind_ GUARDED_BY(Monitor_m) = false;

 private:
  void readSettings();
  InMemoryBuffer* newBlock(int mode, bool blocking);
  InMemoryBuffer& producersBlock() const;
  InMemoryBuffer& consumersBlock() const;
  int dump(InMemoryBuffer& block, unsigned long long number);
  void nextWriteBlock(unsigned long long* fileCounter, int* offset);
  void swapWriteBlock(unsigned long long* fileCounter, int* offset);
  bool nextReadBlock();
  void takeUpNextBlock() REQUIRES(Monitor_m);
  bool loadReadBlock();
  void logBlocks(const char* tag, const char* moment) REQUIRES(Monitor_m);

  std::vector<std::unique_ptr<InMemoryBuffer>> blocks_;  // owns every block, in every mode
};
