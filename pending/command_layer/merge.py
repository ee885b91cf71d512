#!/usr/bin/env python3
# Builds the merged qzvm_support.{h,cc} from the owner's files and the draft.
import sys, re
src, out = sys.argv[1], sys.argv[2]
h = open(src + '/qzvm_support.h').read()
pub = open('/work/main/pending/command_layer/support_decls_public.inc').read()
priv = open('/work/main/pending/command_layer/support_decls_private.inc').read()
structs = '''// Cache entry of one disk group.
struct SDGInfo {
  std::string name;
  std::vector<std::string> disks;   // as getDisksForDG listed them
  std::vector<std::string> config;  // the "qzprint -m" dump
};

// Cache entry of one disk (or, in the node-to-path cache, one DMP node).
struct SDisksInfo {
  std::string name;
  std::vector<std::string> listing;  // "qzdisk list" output
  std::string osName;                // OS path found for the node
};

'''
h = h.replace('#include <string>\n', '#include <map>\n#include <string>\n', 1)
h = h.replace('#include "configuration.h"\n', '#include "configuration.h"\n#include "node.h"\n', 1)
h = h.replace('class CQzVMSupport ', structs + 'class CQzVMSupport ', 1)
i = h.index(' protected:\n  CQzVMCliTool m_cliTool;')
h = h[:i] + '\n' + pub + h[i:]
j = h.index('  SQzVMCliPath m_cliPath;\n', i) + len('  SQzVMCliPath m_cliPath;\n')
h = h[:j] + '\n private:\n' + priv + h[j:]
open(out + '/qzvm_support.h', 'w').write(h)
c = open(src + '/qzvm_support.cc').read()
c = c.replace('#include <string.h>\n', '#include <string.h>\n#include <unistd.h>\n\n#include <algorithm>\n#include <cerrno>\n#include <cstdarg>\n#include <cstdio>\n#include <cstdlib>\n#include <map>\n', 1)
c = c.replace('#include "report.h"\n', '#include "osutil.h"\n#include "report.h"\n', 1)
for part in 'abcde':
    c += '\n' + open('/work/main/pending/command_layer/support_draft_%s.cc' % part).read()
open(out + '/qzvm_support.cc', 'w').write(c)
