#include "SQLParser/SQLConditionNode.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "SQLParser/WalkStack.h"

CSQLConditionNode::CSQLConditionNode(CSQLConditionNode&& other) noexcept
    : operator_(other.operator_),
      left_(std::move(other.left_)),
      right_(std::move(other.right_)),
      first_(std::move(other.first_)),
      second_(std::move(other.second_)) {
  other.operator_ = SQL_COND_OPERAND;
}

CSQLConditionNode::~CSQLConditionNode() { DestroyChildren(); }

// Rotations instead of recursion: while the top node has a left child, that child is
// rotated up; a top without a left child is freed (its own destructor then finds no
// children) and its right child becomes the top. No extra memory, no stack growth.
void CSQLConditionNode::DestroyChildren() noexcept {
  std::unique_ptr<CSQLConditionNode> subtrees[2] = {std::move(left_), std::move(right_)};
  for (auto& top : subtrees) {
    while (top) {
      if (top->left_) {
        std::unique_ptr<CSQLConditionNode> left = std::move(top->left_);
        top->left_ = std::move(left->right_);
        left->right_ = std::move(top);
        top = std::move(left);
      } else {
        std::unique_ptr<CSQLConditionNode> right = std::move(top->right_);
        top = std::move(right);
      }
    }
  }
}

void CSQLConditionNode::SetLeft(std::unique_ptr<CSQLConditionNode> node) { left_ = std::move(node); }

void CSQLConditionNode::SetRight(std::unique_ptr<CSQLConditionNode> node) { right_ = std::move(node); }

void CSQLConditionNode::Reset() {
  DestroyChildren();
  operator_ = SQL_COND_OPERAND;
  first_.reset();
  second_.reset();
}

int CSQLConditionNode::Height() const {
  int height = 0;
  CWalkStack<std::pair<const CSQLConditionNode*, int>> pending;
  pending.Push({this, 1});
  while (!pending.Empty()) {
    auto [node, depth] = pending.Pop();
    height = std::max(height, depth);
    if (node->left_) pending.Push({node->left_.get(), depth + 1});
    if (node->right_) pending.Push({node->right_.get(), depth + 1});
  }
  return height;
}
