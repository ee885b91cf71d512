// The volume-manager command layer: the text helpers that take the tools'
// output apart, and CQzVMSupport, which runs the tools.
#ifndef QZVMFI_QZVM_SUPPORT_H
#define QZVMFI_QZVM_SUPPORT_H

#include <stdio.h>

#include <string>
#include <vector>

#include <qzfi/pdk.h>

#include "clitool.h"
#include "configuration.h"

// The token at a 0-based position, tokens being runs of non-white characters;
// empty when the line has fewer.
std::string getToken(const std::string& line, int index);
// The value of "key=value" in text (ended by a blank or a comma), or empty.
// A value that begins with a comma stops the process.
std::string getValForKey(const std::string& text, const std::string& key);
// The first line holding key, with key removed and trimmed, into value: 0;
// 1 (value untouched) when no line holds it.
int getMetaValForkey(const std::vector<std::string>& lines, const std::string& key,
                     std::string& value);
bool hasVal(const std::string& text, const std::string& key);
bool hasDAName(const std::string& text);
bool hasDMName(const std::string& text);
bool hasPathVal(const std::string& text);
// Replaces the first occurrence of what at or after from: 0; 1 when none.
int replaceString(std::string& text, std::string::size_type from, const std::string& what,
                  const std::string& with);
// Every wanted entry is present (and, with sameSize, the lists are as long).
bool checkVectorMatch(const std::vector<std::string>& wanted,
                      const std::vector<std::string>& present, bool sameSize);
bool isUniqueInVector(const std::vector<std::string>& names, const std::string& name);
// name becomes name_<i> for the first free i (cut to the volume manager's
// limit); empty when 1024 tries are all taken.
void createUniqueInVector(const std::vector<std::string>& names, std::string& name);
// Keeps the last 31 characters: the volume manager's longest object name.
void MAKE_NAME_RFIT(std::string& name);
// Appends the lines of text, without their line feeds.
void multiLinesToVector(const std::string& text, std::vector<std::string>& lines);
void printList4(const std::vector<std::string>& lines);

class CQzVMSupport : public virtual qzfi_pdk_4_4::CFiTraceable {
 public:
  // Reads the tool directories, writing the default configuration file when
  // there is none. Throws CFiError when its folder cannot be determined.
  CQzVMSupport();
  ~CQzVMSupport() override;

  // The support object and its command runner trace into log.
  void registerTraceLog(const qzfi_pdk_4_4::CFiTraceLogPtr& log) override;

  // One whole line of any length, line feed kept; empty at end of file.
  // Always 0.
  static int fgetline(std::string& line, FILE* stream);
  // Writes the lines as they are (they carry their own line feeds): 0; 1 when
  // the file cannot be opened or there is nothing to write (the file is then
  // left empty).
  static int putVectorInFile(const std::vector<std::string>& lines, const std::string& path);

  const SQzVMCliPath& cliPath() const { return m_cliPath; }

 protected:
  CQzVMCliTool m_cliTool;
  SQzVMCliPath m_cliPath;
};

#endif  // QZVMFI_QZVM_SUPPORT_H
