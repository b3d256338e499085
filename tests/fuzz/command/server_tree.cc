#include "command/server_tree.h"

#include <cstdio>

namespace {

constexpr int kLinkDepth = 8;

std::vector<std::string> components(const std::string& path) {
  std::vector<std::string> parts;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find('/', start);
    if (end == std::string::npos) end = path.size();
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

std::string parent_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

std::string base_of(const std::string& path) {
  return path.substr(path.rfind('/') + 1);
}

}  // namespace

ServerTree::ServerTree(const Scenario& scenario)
    : login_(resolve("/", scenario.login_directory)),
      crlf_(scenario.crlf),
      dots_(scenario.dots) {
  nodes_.push_back(Node{});  // "/"
  make_path(login_, ScenarioEntry::Kind::directory);
  // Something outside the login directory, for requests that would leave it.
  make_path("/outside/secret", ScenarioEntry::Kind::file);
  for (const ScenarioEntry& entry : scenario.entries) {
    const int node = make_path(resolve(login_, entry.path), entry.kind);
    if (node > 0 && nodes_[node].argument.empty())
      nodes_[node].argument = entry.argument;
  }
  for (const std::string& path : scenario.hidden) {
    const int node = find(resolve(login_, path), false);
    if (node > 0) nodes_[node].hidden = true;
  }
  for (const std::string& path : scenario.dos_directories) {
    const int node = find(resolve(login_, path), true);
    if (node >= 0) nodes_[node].dos = true;
  }
  for (const auto& [path, line] : scenario.junk) {
    const int node = find(resolve(login_, path), true);
    if (node >= 0) nodes_[node].junk.push_back(line);
  }
  for (const auto& [path, body] : scenario.bodies) {
    const int node = find(resolve(login_, path), true);
    if (node >= 0) nodes_[node].body = body;
  }
}

std::string ServerTree::resolve(const std::string& cwd,
                                const std::string& argument) {
  std::vector<std::string> parts;
  if (argument.empty() || argument[0] != '/') parts = components(cwd);
  for (std::string& part : components(argument)) {
    if (part == ".") continue;
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
      continue;
    }
    parts.push_back(std::move(part));
  }
  std::string path;
  for (const std::string& part : parts) path += "/" + part;
  return path.empty() ? "/" : path;
}

int ServerTree::child(int directory, const std::string& name) const {
  for (std::size_t i = 1; i < nodes_.size(); ++i) {
    const Node& node = nodes_[i];
    if (node.parent == directory && !node.removed && node.name == name)
      return static_cast<int>(i);
  }
  return -1;
}

int ServerTree::find(const std::string& path, bool follow_last,
                     int depth) const {
  if (depth > kLinkDepth) return -1;
  int node = 0;
  std::string at = "/";
  const std::vector<std::string> parts = components(path);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (nodes_[node].kind != ScenarioEntry::Kind::directory) return -1;
    node = child(node, parts[i]);
    if (node < 0) return -1;
    const bool last = i + 1 == parts.size();
    if (nodes_[node].kind == ScenarioEntry::Kind::link &&
        (!last || follow_last)) {
      node = find(resolve(at, nodes_[node].argument), true, depth + 1);
      if (node < 0) return -1;
    }
    at = resolve(at, parts[i]);
  }
  return node;
}

int ServerTree::add(int parent, const std::string& name,
                    ScenarioEntry::Kind kind) {
  Node node;
  node.parent = parent;
  node.name = name;
  node.kind = kind;
  nodes_.push_back(std::move(node));
  return static_cast<int>(nodes_.size() - 1);
}

int ServerTree::make_path(const std::string& path, ScenarioEntry::Kind kind) {
  int node = 0;
  const std::vector<std::string> parts = components(path);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (nodes_[node].kind != ScenarioEntry::Kind::directory) return -1;
    const bool last = i + 1 == parts.size();
    const int next = child(node, parts[i]);
    if (next >= 0) {
      if (last) return -1;  // made already
      node = next;
    } else {
      node = add(node, parts[i], last ? kind : ScenarioEntry::Kind::directory);
    }
  }
  return node;
}

std::string ServerTree::line(const Node& node, const std::string& name,
                             bool dos) const {
  const bool directory = node.kind == ScenarioEntry::Kind::directory;
  const std::size_t size = directory ? 4096 : node.argument.size();
  if (dos) {
    if (directory) return "01-01-20  12:00PM       <DIR>          " + name;
    char size_text[32];
    std::snprintf(size_text, sizeof size_text, "%20zu", size);
    return std::string("01-01-20  12:00PM ") + size_text + " " + name;
  }
  // Type and permissions, in the order of ScenarioEntry::Kind.
  static const char* const kModes[] = {"drwxr-xr-x", "-rw-r--r--", "lrwxrwxrwx",
                                       "prw-r--r--"};
  std::string text = kModes[static_cast<int>(node.kind)];
  text += " 1 owner group " + std::to_string(size) + " Jan 01  2020 " + name;
  if (node.kind == ScenarioEntry::Kind::link) text += " -> " + node.argument;
  return text;
}

bool ServerTree::is_directory(const std::string& path) const {
  const int node = find(path, true);
  return node >= 0 && nodes_[node].kind == ScenarioEntry::Kind::directory;
}

std::optional<std::string> ServerTree::content(const std::string& path) const {
  const int node = find(path, true);
  if (node < 0 || nodes_[node].kind != ScenarioEntry::Kind::file) return {};
  return nodes_[node].argument;
}

std::optional<std::string> ServerTree::list(const std::string& path) const {
  const int found = find(path, true);
  if (found < 0) {
    // A link that leads nowhere is still listed as itself.
    const int link = find(path, false);
    if (link < 0) return {};
    return line(nodes_[link], base_of(path), false) + line_end();
  }
  const Node& node = nodes_[found];
  if (node.kind != ScenarioEntry::Kind::directory) {
    const int own = find(path, false);
    return line(nodes_[own], base_of(path), false) + line_end();
  }
  if (node.body) return *node.body;
  std::string body;
  if (dots_) {
    body += line(node, ".", node.dos) + line_end();
    body += line(node, "..", node.dos) + line_end();
  }
  for (std::size_t i = 1; i < nodes_.size(); ++i) {
    const Node& entry = nodes_[i];
    if (entry.parent == found && !entry.removed && !entry.hidden)
      body += line(entry, entry.name, node.dos) + line_end();
  }
  for (const std::string& junk : node.junk) body += junk + line_end();
  return body;
}

std::optional<std::string> ServerTree::name_list(
    const std::string& path) const {
  const int found = find(path, true);
  if (found < 0) return {};
  if (nodes_[found].kind != ScenarioEntry::Kind::directory)
    return base_of(path) + "\r\n";
  std::string body;
  for (std::size_t i = 1; i < nodes_.size(); ++i) {
    const Node& entry = nodes_[i];
    if (entry.parent == found && !entry.removed && !entry.hidden)
      body += entry.name + "\r\n";
  }
  return body;
}

bool ServerTree::remove_file(const std::string& path) {
  const int node = find(path, false);
  if (node <= 0 || nodes_[node].kind == ScenarioEntry::Kind::directory)
    return false;
  nodes_[node].removed = true;
  return true;
}

bool ServerTree::remove_directory(const std::string& path) {
  const int node = find(path, false);
  if (node <= 0 || nodes_[node].kind != ScenarioEntry::Kind::directory)
    return false;
  for (std::size_t i = 1; i < nodes_.size(); ++i)
    if (nodes_[i].parent == node && !nodes_[i].removed) return false;
  nodes_[node].removed = true;
  return true;
}

bool ServerTree::make_directory(const std::string& path) {
  const int parent = find(parent_of(path), true);
  if (path == "/" || parent < 0 ||
      nodes_[parent].kind != ScenarioEntry::Kind::directory ||
      child(parent, base_of(path)) >= 0)
    return false;
  add(parent, base_of(path), ScenarioEntry::Kind::directory);
  return true;
}

bool ServerTree::store(const std::string& path, std::string content) {
  const int parent = find(parent_of(path), true);
  if (path == "/" || parent < 0 ||
      nodes_[parent].kind != ScenarioEntry::Kind::directory)
    return false;
  int node = child(parent, base_of(path));
  if (node < 0) {
    node = add(parent, base_of(path), ScenarioEntry::Kind::file);
  } else if (nodes_[node].kind != ScenarioEntry::Kind::file) {
    return false;
  }
  nodes_[node].argument = std::move(content);
  return true;
}
