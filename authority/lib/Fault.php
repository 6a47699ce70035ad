<?php

declare(strict_types=1);

namespace Quorvex\Authority;

/** The reasons for which the authority refuses, with the numbers of its error blocks. */
enum Fault: int
{
    case Internal = 1;
    case BadRequest = 2;
    case LoginFailed = 3;
    case NotAllowed = 4;
    case UnknownAction = 5;
    case BadField = 6;
    case NotFound = 7;
    case Conflict = 8;

    /** Severity of the error block: 7 when the authority itself is at fault, else 5. */
    public function severity(): int
    {
        return $this === self::Internal ? 7 : 5;
    }
}
