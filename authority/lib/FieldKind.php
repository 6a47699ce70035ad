<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** What the text of a form field may be. */
enum FieldKind
{
    case Number;
    case NumberOrEmpty;
    case Flag;
    case AgentType;
    case HostName;
    case MacAddress;
    case Line;
    case LineOrEmpty;
    case Text;

    /** A pattern that matches every allowed value and nothing else. */
    public function pattern(): string
    {
        return match ($this) {
            self::Number => '/^(0|[1-9][0-9]{0,17})$/D',
            self::NumberOrEmpty => '/^(|0|[1-9][0-9]{0,17})$/D',
            self::Flag => '/^[01]$/D',
            self::AgentType => '/^[0-3]$/D',
            self::HostName => '/^[A-Za-z0-9_][A-Za-z0-9._-]{0,254}$/D',
            self::MacAddress => '/^[0-9A-Fa-f]{12}$/D',
            self::Line => '/^[^\x00-\x1f\x7f]{1,255}$/Du',
            self::LineOrEmpty => '/^[^\x00-\x1f\x7f]{0,255}$/Du',
            self::Text => '/^[^\x00-\x08\x0b\x0c\x0e-\x1f\x7f]{0,65535}$/Du',
        };
    }

    /** The rule in words: completes the sentence "The field must be ...". */
    public function rule(): string
    {
        return match ($this) {
            self::Number => 'a decimal number of at most 18 digits',
            self::NumberOrEmpty => 'empty or a decimal number of at most 18 digits',
            self::Flag => '0 or 1',
            self::AgentType => '0, 1, 2 or 3',
            self::HostName => 'a host name of at most 255 letters, digits, dots, hyphens and underscores',
            self::MacAddress => 'twelve hexadecimal digits',
            self::Line => 'one line of 1 to 255 characters in UTF-8 without control characters',
            self::LineOrEmpty => 'one line of at most 255 characters in UTF-8 without control characters',
            self::Text => 'a text of at most 65535 characters in UTF-8 without control characters',
        };
    }
}
