// One node of the WHERE tree: a bare operand (operator 0), a comparison holding both of
// its operands, or OR / AND / NOT over child nodes. A comparison whose right side was a
// parenthesised condition keeps that condition as its right child.
#pragma once
#include <memory>

#include "SQLParser/SQLCalcItem.h"

enum SQLConditionOperator : int {
  SQL_COND_OPERAND = 0,
  SQL_COND_EQUAL = 1,
  SQL_COND_GREATER = 2,
  SQL_COND_LESS = 3,
  SQL_COND_GREATER_OR_EQUAL = 4,
  SQL_COND_LESS_OR_EQUAL = 5,
  SQL_COND_NOT_EQUAL = 6,
  SQL_COND_OR = 7,
  SQL_COND_AND = 8,
  SQL_COND_NOT = 9,
};

class CSQLConditionNode {
 public:
  CSQLConditionNode() = default;
  // Takes every field of `other`, which is left an empty operand node.
  CSQLConditionNode(CSQLConditionNode&& other) noexcept;
  CSQLConditionNode& operator=(CSQLConditionNode&&) = delete;
  CSQLConditionNode(const CSQLConditionNode&) = delete;
  // Long AND/OR chains make deep left spines; they are taken apart without recursion.
  ~CSQLConditionNode();

  int Operator() const { return operator_; }
  const CSQLConditionNode* Left() const { return left_.get(); }
  const CSQLConditionNode* Right() const { return right_.get(); }
  const CSQLCalcItem* FirstOperand() const { return first_.get(); }
  const CSQLCalcItem* SecondOperand() const { return second_.get(); }

  CSQLConditionNode* MutableLeft() { return left_.get(); }
  CSQLConditionNode* MutableRight() { return right_.get(); }

  void SetOperator(int op) { operator_ = op; }
  void SetLeft(std::unique_ptr<CSQLConditionNode> node);
  void SetRight(std::unique_ptr<CSQLConditionNode> node);
  void SetFirstOperand(std::unique_ptr<CSQLCalcItem> item) { first_ = std::move(item); }
  void SetSecondOperand(std::unique_ptr<CSQLCalcItem> item) { second_ = std::move(item); }
  std::unique_ptr<CSQLCalcItem> TakeFirstOperand() { return std::move(first_); }
  // Back to an empty operand node; children and operands are destroyed.
  void Reset();

  // Number of nodes on the longest path from this node down (1 for a leaf), computed
  // without recursion. May throw std::bad_alloc.
  int Height() const;

 private:
  void DestroyChildren() noexcept;

  int operator_ = SQL_COND_OPERAND;
  std::unique_ptr<CSQLConditionNode> left_;
  std::unique_ptr<CSQLConditionNode> right_;
  std::unique_ptr<CSQLCalcItem> first_;
  std::unique_ptr<CSQLCalcItem> second_;
};
